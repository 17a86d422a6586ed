// SPDX-License-Identifier: Apache-2.0
// Names the requests between the manager and its clients in a trace.
#include "samgr_protocol.h"
#include "vexa/ipc/trace_operation.h"

namespace VEXA::samgr {

static const std::u16string_view kManager = ISystemAbilityManager::GetDescriptor();
static const std::u16string_view kCallback = ISystemAbilityLoadCallback::GetDescriptor();
static const TraceOperation kOperations[] = {
    {kManager, CHECK_SYSTEM_ABILITY, "CHECK_SYSTEM_ABILITY", "int32 id -> object service"},
    {kManager, LOAD_SYSTEM_ABILITY, "LOAD_SYSTEM_ABILITY", "int32 id, object callback"},
    {kManager, ADD_SYSTEM_ABILITY, "ADD_SYSTEM_ABILITY", "int32 id, object service"},
    {kManager, REMOVE_SYSTEM_ABILITY, "REMOVE_SYSTEM_ABILITY", "int32 id"},
    {kManager, LIST_SYSTEM_ABILITIES, "LIST_SYSTEM_ABILITIES", "-> text services"},
    {kCallback, LOAD_SUCCEEDED, "LOAD_SUCCEEDED", "int32 id, object service"},
    {kCallback, LOAD_FAILED, "LOAD_FAILED", "int32 id, int32 error, text reason"},
    {kCallback, LOADED_FROM_DEVICE, "LOADED_FROM_DEVICE", "text device, int32 id, object service"},
};

}  // namespace VEXA::samgr
