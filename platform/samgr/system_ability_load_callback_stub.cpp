// SPDX-License-Identifier: Apache-2.0
#include "vexa/samgr/system_ability_load_callback_stub.h"

#include "load_outcome.h"

namespace VEXA {

SystemAbilityLoadCallbackStub::SystemAbilityLoadCallbackStub() = default;
SystemAbilityLoadCallbackStub::~SystemAbilityLoadCallbackStub() = default;

int32_t SystemAbilityLoadCallbackStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        return SAMGR_BAD_REQUEST;
    }
    if (code == samgr::LOADED_FROM_DEVICE) {
        std::string deviceId;
        int32_t systemAbilityId = 0;
        if (!data.ReadString(deviceId) || !data.ReadInt32(systemAbilityId)) {
            return SAMGR_BAD_REQUEST;
        }
        OnLoadSACompleteForRemote(deviceId, systemAbilityId, data.ReadRemoteObject());
        return SAMGR_OK;
    }
    if (code != samgr::LOAD_SUCCEEDED && code != samgr::LOAD_FAILED) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    samgr::LoadOutcome outcome;
    if (!samgr::ReadLoadOutcome(code, data, outcome)) {
        return SAMGR_BAD_REQUEST;
    }
    if (outcome.error == SAMGR_OK) {
        OnLoadSystemAbilitySuccess(outcome.systemAbilityId, outcome.object);
    } else {
        OnLoadSystemAbilityFail(outcome.systemAbilityId);
    }
    return SAMGR_OK;
}

}  // namespace VEXA
