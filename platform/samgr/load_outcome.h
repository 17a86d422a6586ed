// SPDX-License-Identifier: Apache-2.0
// The outcome of a load as it travels from the manager to a load callback.
#pragma once

#include <cstdint>
#include <string>

#include "samgr_protocol.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::samgr {

struct LoadOutcome {
    int32_t systemAbilityId = 0;
    int32_t error = SAMGR_OK;
    sptr<IRemoteObject> object;  // the service, when error is SAMGR_OK
    std::string reason;          // for people, when it is not
};

// The request code that reports the outcome.
inline uint32_t LoadOutcomeCode(const LoadOutcome& outcome)
{
    return outcome.error == SAMGR_OK ? LOAD_SUCCEEDED : LOAD_FAILED;
}

inline bool WriteLoadOutcome(const LoadOutcome& outcome, MessageParcel& data)
{
    if (!data.WriteInterfaceToken(ISystemAbilityLoadCallback::GetDescriptor()) ||
        !data.WriteInt32(outcome.systemAbilityId)) {
        return false;
    }
    return outcome.error == SAMGR_OK ? data.WriteRemoteObject(outcome.object)
                                     : data.WriteInt32(outcome.error) && data.WriteString(outcome.reason);
}

// Reads what follows the token of a LOAD_SUCCEEDED or LOAD_FAILED request; false when it is not one.
inline bool ReadLoadOutcome(uint32_t code, MessageParcel& data, LoadOutcome& outcome)
{
    if (!data.ReadInt32(outcome.systemAbilityId)) {
        return false;
    }
    if (code == LOAD_SUCCEEDED) {
        outcome.object = data.ReadRemoteObject();
        return true;
    }
    return code == LOAD_FAILED && data.ReadInt32(outcome.error) && outcome.error != SAMGR_OK &&
           data.ReadString(outcome.reason);
}

}  // namespace VEXA::samgr
