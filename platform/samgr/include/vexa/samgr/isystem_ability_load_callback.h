// SPDX-License-Identifier: Apache-2.0
// How the manager reports the outcome of an asynchronous load.
#pragma once

#include <cstdint>
#include <string>

#include "vexa/ipc/iremote_broker.h"

namespace VEXA {

class VEXA_EXPORT ISystemAbilityLoadCallback : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"VEXA.ISystemAbilityLoadCallback")

    // Exactly one of these two is called for an accepted load, on a thread of the process's IPC pool.
    virtual void OnLoadSystemAbilitySuccess(int32_t systemAbilityId, const sptr<IRemoteObject>& remoteObject) = 0;
    virtual void OnLoadSystemAbilityFail(int32_t systemAbilityId) = 0;
    // For a service loaded on another device.
    virtual void OnLoadSACompleteForRemote(
        const std::string& deviceId, int32_t systemAbilityId, const sptr<IRemoteObject>& remoteObject)
    {
        (void)deviceId;
        (void)systemAbilityId;
        (void)remoteObject;
    }
};

}  // namespace VEXA
