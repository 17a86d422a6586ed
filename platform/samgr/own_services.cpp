// SPDX-License-Identifier: Apache-2.0
#include "own_services.h"

#include <chrono>
#include <thread>
#include <utility>

#include "samgr_log.h"
#include "samgr_protocol.h"
#include "vexa/ipc/context_object.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA::samgr {

namespace {

// The word that a new manager is there may overtake the word that the old one has ended: the first attempts may still
// go to the old one.
constexpr int kAttempts = 20;
constexpr std::chrono::milliseconds kBetweenAttempts(10);

int32_t AddToManager(int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    int32_t result = IPC_DEAD_OBJECT;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        result = manager != nullptr ? manager->AddSystemAbility(systemAbilityId, object) : int32_t{IPC_DEAD_OBJECT};
        if (result != IPC_DEAD_OBJECT && result != IPC_CONNECTION_LOST) {
            break;
        }
        std::this_thread::sleep_for(kBetweenAttempts);
    }
    return result;
}

}  // namespace

OwnServices& OwnServices::Get()
{
    static OwnServices* const instance = new OwnServices;
    return *instance;
}

OwnServices::OwnServices()
{
    OnContextObjectPublished([this] { AddAll(); });
}

sptr<IRemoteObject> OwnServices::Replace(int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    MutexLock lock(mutex_);
    sptr<IRemoteObject> previous = std::exchange(services_[systemAbilityId], object);
    if (object == nullptr) {
        services_.erase(systemAbilityId);
    }
    return previous;
}

std::map<int32_t, sptr<IRemoteObject>> OwnServices::All()
{
    MutexLock lock(mutex_);
    return services_;
}

void OwnServices::AddAll()
{
    for (const auto& [systemAbilityId, object] : All()) {
        const int32_t result = AddToManager(systemAbilityId, object);
        if (result != SAMGR_OK) {
            SAMGR_LOGW("service %{public}d was not registered with the new manager: %{public}s", systemAbilityId,
                ResultText(result));
        }
    }
}

}  // namespace VEXA::samgr
