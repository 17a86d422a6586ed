// SPDX-License-Identifier: Apache-2.0
// What the manager and its clients say to each other. Every request begins with its interface's token.
#pragma once

#include <cstdint>

#include "vexa/ipc/ipc_errors.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/isystem_ability_manager.h"

namespace VEXA::samgr {

// Requests to the manager. The result is a SamgrError.
enum ManagerRequest : uint32_t {
    CHECK_SYSTEM_ABILITY = 1,   // int32 id -> object, null when the service is not running
    LOAD_SYSTEM_ABILITY = 2,    // int32 id, callback object ->
    ADD_SYSTEM_ABILITY = 3,     // int32 id, object ->
    REMOVE_SYSTEM_ABILITY = 4,  // int32 id ->
};

// What each of them begins with.
inline bool WriteHead(MessageParcel& data, int32_t systemAbilityId)
{
    return data.WriteInterfaceToken(ISystemAbilityManager::GetDescriptor()) && data.WriteInt32(systemAbilityId);
}

// One-way requests to a load callback.
enum LoadCallbackRequest : uint32_t {
    LOAD_SUCCEEDED = 1,      // int32 id, object: null when it could not be handed over, so ask again
    LOAD_FAILED = 2,         // int32 id, int32 SamgrError, string reason
    LOADED_FROM_DEVICE = 3,  // string device id, int32 id, object
};

// What a result of the manager's operations means, for logs and for callers that are people.
inline const char* ResultText(int32_t result)
{
    switch (result) {
        case SAMGR_OK:
            return "success";
        case SAMGR_NOT_ALLOWED:
            return "its profile does not let this user do that";
        case SAMGR_NO_PROFILE:
            return "no profile names it";
        case SAMGR_ALREADY_REGISTERED:
            return "a living process serves it already";
        case SAMGR_PROGRAM_MISSING:
            return "its program can't be started";
        case SAMGR_PROGRAM_EXITED:
            return "its program ended before it registered";
        case SAMGR_PROGRAM_SLOW:
            return "its program did not register in time";
        case SAMGR_BAD_REQUEST:
            return "the request makes no sense";
        case SAMGR_BUSY:
            return "the manager takes no more loads of it now";
        case IPC_DEAD_OBJECT:
            return "the manager has ended";
        case IPC_TIMED_OUT:
            return "the manager did not answer in time";
        default:
            return "the manager could not be asked";
    }
}

}  // namespace VEXA::samgr
