// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/ipc/iremote_stub.h"
#include "vexa/samgr/isystem_ability_load_callback.h"

namespace VEXA {

// Turns the manager's callback requests into the operations of ISystemAbilityLoadCallback.
class VEXA_EXPORT SystemAbilityLoadCallbackStub : public IRemoteStub<ISystemAbilityLoadCallback> {
public:
    SystemAbilityLoadCallbackStub();
    ~SystemAbilityLoadCallbackStub() override;

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
};

}  // namespace VEXA
