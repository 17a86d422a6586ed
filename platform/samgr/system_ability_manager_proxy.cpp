// SPDX-License-Identifier: Apache-2.0
#include "system_ability_manager_proxy.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "own_services.h"
#include "pending_load.h"
#include "registration.h"
#include "samgr_limits.h"
#include "samgr_log.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA {

namespace {

using samgr::LoadOutcome;
using samgr::PendingLoad;
using std::chrono::steady_clock;

// Lets the thread of a synchronous load wait for the outcome.
class LoadWait {
public:
    void Set(const LoadOutcome& outcome)
    {
        MutexLock lock(mutex_);
        outcome_ = outcome;
        ready_.NotifyAll();
    }

    // False when there is no outcome at the deadline, or the manager has died. The manager's life is looked at rather
    // than watched: the waiting thread may be the very one that brings notices of death.
    bool Wait(steady_clock::time_point deadline, const sptr<IRemoteObject>& manager, LoadOutcome& outcome)
    {
        const WorkerWait wait;  // the outcome comes as a request
        MutexLock lock(mutex_);
        while (!ready_.WaitUntil(mutex_, std::min(deadline, steady_clock::now() + samgr::kLoadSlice),
            [this]() VEXA_REQUIRES(mutex_) { return outcome_.has_value(); })) {
            if (steady_clock::now() >= deadline || manager->IsObjectDead()) {
                return false;
            }
        }
        outcome = *outcome_;
        return true;
    }

private:
    Mutex mutex_{LockRank::LoadOutcome};
    CondVar ready_;
    std::optional<LoadOutcome> outcome_ VEXA_GUARDED_BY(mutex_);
};

LoadOutcome LoadAndWait(const sptr<IRemoteObject>& manager, int32_t systemAbilityId, std::chrono::seconds timeout)
{
    const auto deadline = steady_clock::now() + timeout;
    const auto wait = std::make_shared<LoadWait>();
    const sptr<PendingLoad> load(new PendingLoad(
        manager, systemAbilityId, deadline, [wait](const LoadOutcome& outcome) { wait->Set(outcome); }));
    LoadOutcome outcome{systemAbilityId, load->Ask(), nullptr, {}};
    if (outcome.error != SAMGR_OK) {
        outcome.reason = samgr::ResultText(outcome.error);
    } else if (!wait->Wait(deadline, manager, outcome)) {
        load->Abandon();
        outcome.reason = manager->IsObjectDead() ? samgr::ResultText(IPC_DEAD_OBJECT)
                                                 : "not there within " + std::to_string(timeout.count()) + " s";
    }
    return outcome;
}

}  // namespace

BrokerDelegator<SystemAbilityManagerProxy> SystemAbilityManagerProxy::delegator_;

SystemAbilityManagerProxy::SystemAbilityManagerProxy(const sptr<IRemoteObject>& object)
    : IRemoteProxy<ISystemAbilityManager>(object)
{}

sptr<IRemoteObject> SystemAbilityManagerProxy::CheckSystemAbility(int32_t systemAbilityId)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, samgr::kManagerWaitSeconds);
    const int32_t result = samgr::WriteHead(data, systemAbilityId)
                               ? Remote()->SendRequest(samgr::CHECK_SYSTEM_ABILITY, data, reply, option)
                               : int32_t{IPC_FAILED};
    if (result != SAMGR_OK) {
        SAMGR_LOGE("lookup of service %{public}d failed: %{public}s (%{public}d)", systemAbilityId,
            samgr::ResultText(result), result);
        return nullptr;
    }
    // The manager may hear of a death later than this process, or than the service's process can tell it.
    sptr<IRemoteObject> object = reply.ReadRemoteObject();
    return IPCSkeleton::AwaitProcess(object, steady_clock::now() + samgr::kGreetTime) ? object : nullptr;
}

sptr<IRemoteObject> SystemAbilityManagerProxy::LoadSystemAbility(
    int32_t systemAbilityId, int32_t timeout, std::string* reason)
{
    const LoadOutcome outcome = LoadAndWait(Remote(), systemAbilityId, std::chrono::seconds(std::max(timeout, 1)));
    if (outcome.object == nullptr) {
        SAMGR_LOGE("load of service %{public}d failed: %{public}s", systemAbilityId, outcome.reason.c_str());
        if (reason != nullptr) {
            *reason = outcome.reason;
        }
    }
    return outcome.object;
}

int32_t SystemAbilityManagerProxy::LoadSystemAbility(
    int32_t systemAbilityId, const sptr<ISystemAbilityLoadCallback>& callback)
{
    if (callback == nullptr) {
        return SAMGR_BAD_REQUEST;
    }
    const auto report = [callback](const LoadOutcome& outcome) {
        if (outcome.error == SAMGR_OK) {
            callback->OnLoadSystemAbilitySuccess(outcome.systemAbilityId, outcome.object);
            return;
        }
        SAMGR_LOGE("load of service %{public}d failed: %{public}s", outcome.systemAbilityId, outcome.reason.c_str());
        callback->OnLoadSystemAbilityFail(outcome.systemAbilityId);
    };
    const sptr<PendingLoad> load(
        new PendingLoad(Remote(), systemAbilityId, steady_clock::now() + samgr::kAsyncLoadTime, report));
    const int32_t result = load->Ask();
    if (result == SAMGR_OK) {
        load->FailWithManager();
    } else {
        load->Abandon();
        SAMGR_LOGE("load of service %{public}d is refused: %{public}s", systemAbilityId, samgr::ResultText(result));
    }
    return result;
}

int32_t SystemAbilityManagerProxy::AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    if (object == nullptr) {
        return SAMGR_BAD_REQUEST;
    }
    // The service is noted before the request, so that a manager that takes over meanwhile is told of it as well.
    auto& own = samgr::OwnServices::Get();
    const sptr<IRemoteObject> previous = own.Replace(systemAbilityId, object);
    const int32_t result = samgr::Register(Remote(), systemAbilityId, object);
    if (result != SAMGR_OK) {
        own.Replace(systemAbilityId, previous);
        SAMGR_LOGE("service %{public}d is not registered: %{public}s", systemAbilityId, samgr::ResultText(result));
    }
    return result;
}

int32_t SystemAbilityManagerProxy::RemoveSystemAbility(int32_t systemAbilityId)
{
    samgr::OwnServices::Get().Replace(systemAbilityId, nullptr);
    return samgr::Register(Remote(), systemAbilityId, nullptr);
}

int32_t SystemAbilityManagerProxy::ListSystemAbilities(std::string& services)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, samgr::kManagerWaitSeconds);
    int32_t result = data.WriteInterfaceToken(GetDescriptor())
                         ? Remote()->SendRequest(samgr::LIST_SYSTEM_ABILITIES, data, reply, option)
                         : int32_t{IPC_FAILED};
    result = result == SAMGR_OK && !reply.ReadString(services) ? int32_t{IPC_FAILED} : result;
    if (result != SAMGR_OK) {
        SAMGR_LOGE("the services can't be listed: %{public}s (%{public}d)", samgr::ResultText(result), result);
    }
    return result;
}

}  // namespace VEXA
