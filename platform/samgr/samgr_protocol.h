// SPDX-License-Identifier: Apache-2.0
// Requests between the manager and its clients. Each begins with its interface's token.
#pragma once

#include <cstdint>
#include <utility>

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
    LIST_SYSTEM_ABILITIES = 5,  // -> string: a JSON list
};

// Writes the fields that every request to the manager but the list begins with; that has the token alone.
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

// Returns the meaning of a result of the manager's operations, for log lines and for people.
inline const char* ResultText(int32_t result)
{
    static constexpr std::pair<int32_t, const char*> texts[] = {
        {SAMGR_OK, "success"},
        {SAMGR_NOT_ALLOWED, "its profile does not let this user do that"},
        {SAMGR_NO_PROFILE, "no profile names it"},
        {SAMGR_ALREADY_REGISTERED, "a living process serves it already"},
        {SAMGR_PROGRAM_MISSING, "its program can't be started"},
        {SAMGR_PROGRAM_EXITED, "its program ended before it registered"},
        {SAMGR_PROGRAM_SLOW, "its program did not register in time"},
        {SAMGR_BAD_REQUEST, "the request makes no sense"},
        {SAMGR_BUSY, "the manager takes no more loads of it now"},
        {IPC_DEAD_OBJECT, "the manager has ended"},
        {IPC_TIMED_OUT, "the manager did not answer in time"},
        {IPC_EXITING, "this process is leaving"},
    };
    for (const auto& [number, text] : texts) {
        if (number == result) {
            return text;
        }
    }
    return "the manager could not be asked";
}

}  // namespace VEXA::samgr
