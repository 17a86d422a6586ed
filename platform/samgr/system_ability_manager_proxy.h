// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "samgr_protocol.h"
#include "vexa/ipc/iremote_proxy.h"

namespace VEXA {

// The manager as other processes see it. No operation blocks for longer than kManagerWaitSeconds, except the
// synchronous load, which blocks for its own time-out.
class SystemAbilityManagerProxy : public IRemoteProxy<ISystemAbilityManager> {
public:
    explicit SystemAbilityManagerProxy(const sptr<IRemoteObject>& object);

    sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) override;
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeout, std::string* reason) override;
    int32_t LoadSystemAbility(int32_t systemAbilityId, const sptr<ISystemAbilityLoadCallback>& callback) override;
    int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& object) override;
    int32_t RemoveSystemAbility(int32_t systemAbilityId) override;
    int32_t ListSystemAbilities(std::string& services) override;

private:
    static BrokerDelegator<SystemAbilityManagerProxy> delegator_;
};

}  // namespace VEXA
