// SPDX-License-Identifier: Apache-2.0
#include "vexa/samgr/system_ability_manager_client.h"

#include "vexa/ipc/context_object.h"

namespace VEXA {

SystemAbilityManagerClient& SystemAbilityManagerClient::GetInstance()
{
    // Never destroyed: threads that outlive main may still ask.
    static SystemAbilityManagerClient* const instance = new SystemAbilityManagerClient;
    return *instance;
}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager()
{
    {
        MutexLock lock(mutex_);
        if (unreachable_ || override_ != nullptr) {
            return override_;
        }
        if (manager_ != nullptr && !manager_->AsObject()->IsObjectDead()) {
            return manager_;
        }
    }
    const sptr<IRemoteObject> object = GetContextObject();
    if (object == nullptr || object->IsObjectDead()) {
        return nullptr;
    }
    const auto manager = iface_cast<ISystemAbilityManager>(object);
    auto previous = manager;  // goes after the lock
    MutexLock lock(mutex_);
    manager_.Swap(previous);
    return manager;
}

void SystemAbilityManagerClient::OverrideManager(const sptr<ISystemAbilityManager>& manager)
{
    MutexLock lock(mutex_);
    override_ = manager;
    unreachable_ = false;
}

void SystemAbilityManagerClient::OverrideUnreachable()
{
    MutexLock lock(mutex_);
    override_ = nullptr;
    unreachable_ = true;
}

}  // namespace VEXA
