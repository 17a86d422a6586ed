// SPDX-License-Identifier: Apache-2.0
#include "own_services.h"

#include <thread>
#include <utility>

#include "descriptor_limit.h"
#include "registration.h"
#include "samgr_limits.h"
#include "samgr_log.h"
#include "samgr_protocol.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::samgr {

namespace {

int32_t TellManager(int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteObject> manager = GetContextObject();
    return manager != nullptr ? Register(manager, systemAbilityId, object) : int32_t{IPC_DEAD_OBJECT};
}

}  // namespace

OwnServices& OwnServices::Get()
{
    static OwnServices* const instance = [] {
        RaiseDescriptorLimit(kMostDescriptors);
        auto* const services = new OwnServices(&TellManager);
        OnContextObjectPublished([services] { services->TellAll(); });
        return services;
    }();
    return *instance;
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

sptr<IRemoteObject> OwnServices::Find(int32_t systemAbilityId)
{
    MutexLock lock(mutex_);
    const auto found = services_.find(systemAbilityId);
    return found != services_.end() ? found->second : nullptr;
}

void OwnServices::TellAll()
{
    for (auto [systemAbilityId, served] : All()) {
        sptr<IRemoteObject> told;
        int32_t result = SAMGR_OK;
        int attempts = 0;
        do {
            if (attempts > 0) {
                std::this_thread::sleep_for(kTellPause);
            }
            told = served;
            result = tell_(systemAbilityId, told);
            served = Find(systemAbilityId);
        } while (served != told ||
                 ((result == IPC_DEAD_OBJECT || result == IPC_CONNECTION_LOST) && ++attempts < kTellAttempts));
        if (result != SAMGR_OK) {
            SAMGR_LOGW(
                "the new manager was not told of service %{public}d: %{public}s", systemAbilityId, ResultText(result));
        }
    }
}

}  // namespace VEXA::samgr
