// SPDX-License-Identifier: Apache-2.0
#include "vexa/testing/in_process_manager.h"

#include <utility>

#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA {

// The object that either replaces is destroyed after the mutex is free, because its destructor may run a test's code.
void ScriptedManager::SetRunning(int32_t id, const sptr<IRemoteObject>& object)
{
    sptr<IRemoteObject> swapped = object;
    MutexLock lock(mutex_);
    running_[id].Swap(swapped);
}

void ScriptedManager::SetLoadable(int32_t id, const sptr<IRemoteObject>& object)
{
    sptr<IRemoteObject> swapped = object;
    MutexLock lock(mutex_);
    loadable_[id].Swap(swapped);
}

void ScriptedManager::SetListed(std::string services)
{
    MutexLock lock(mutex_);
    listed_.swap(services);
}

void ScriptedManager::OnCheck(CheckAnswer answer)
{
    MutexLock lock(mutex_);
    checkAnswer_ = std::move(answer);
}

void ScriptedManager::OnLoad(LoadAnswer answer)
{
    MutexLock lock(mutex_);
    loadAnswer_ = std::move(answer);
}

void ScriptedManager::SetAsyncResult(int32_t result)
{
    MutexLock lock(mutex_);
    asyncResult_ = result;
}

void ScriptedManager::HoldCallbacks(bool hold)
{
    MutexLock lock(mutex_);
    hold_ = hold;
}

std::vector<ScriptedManager::PendingLoad> ScriptedManager::TakeHeld()
{
    MutexLock lock(mutex_);
    return std::exchange(held_, {});
}

void ScriptedManager::WaitForCallbacks()
{
    std::vector<std::thread> deliveries;
    {
        MutexLock lock(mutex_);
        deliveries.swap(deliveries_);
    }
    for (auto& delivery : deliveries) {
        delivery.join();
    }
}

std::vector<ScriptedManager::Call> ScriptedManager::Calls() const
{
    MutexLock lock(mutex_);
    return calls_;
}

sptr<IRemoteObject> ScriptedManager::CheckSystemAbility(int32_t systemAbilityId)
{
    Record({Operation::CHECK, systemAbilityId, 0});
    CheckAnswer answer;
    {
        MutexLock lock(mutex_);
        if (!checkAnswer_) {
            return FindAlive(running_, systemAbilityId);
        }
        answer = checkAnswer_;
    }
    return answer(systemAbilityId);
}

sptr<IRemoteObject> ScriptedManager::LoadSystemAbility(int32_t systemAbilityId, int32_t timeout, std::string* reason)
{
    Record({Operation::LOAD, systemAbilityId, timeout});
    LoadAnswer answer;
    {
        MutexLock lock(mutex_);
        answer = loadAnswer_;
    }
    const sptr<IRemoteObject> object = answer ? answer(systemAbilityId, timeout) : Start(systemAbilityId);
    if (object == nullptr && reason != nullptr) {
        *reason = "scripted";
    }
    return object;
}

int32_t ScriptedManager::LoadSystemAbility(int32_t systemAbilityId, const sptr<ISystemAbilityLoadCallback>& callback)
{
    Record({Operation::LOAD_ASYNC, systemAbilityId, 0});
    MutexLock lock(mutex_);
    if (asyncResult_ != SAMGR_OK) {
        return asyncResult_;
    }
    if (hold_) {
        held_.push_back({systemAbilityId, callback});
        return SAMGR_OK;
    }
    deliveries_.emplace_back([this, systemAbilityId, callback] {
        if (const auto object = Start(systemAbilityId); object != nullptr) {
            callback->OnLoadSystemAbilitySuccess(systemAbilityId, object);
        } else {
            callback->OnLoadSystemAbilityFail(systemAbilityId);
        }
    });
    return SAMGR_OK;
}

int32_t ScriptedManager::AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    Record({Operation::ADD, systemAbilityId, 0});
    SetRunning(systemAbilityId, object);
    return SAMGR_OK;
}

int32_t ScriptedManager::RemoveSystemAbility(int32_t systemAbilityId)
{
    Record({Operation::REMOVE, systemAbilityId, 0});
    SetRunning(systemAbilityId, nullptr);
    return SAMGR_OK;
}

int32_t ScriptedManager::ListSystemAbilities(std::string& services)
{
    MutexLock lock(mutex_);
    services = listed_;
    return SAMGR_OK;
}

sptr<IRemoteObject> ScriptedManager::FindAlive(const Objects& objects, int32_t id)
{
    const auto found = objects.find(id);
    const bool alive = found != objects.end() && found->second != nullptr && !found->second->IsObjectDead();
    return alive ? found->second : nullptr;
}

sptr<IRemoteObject> ScriptedManager::Start(int32_t id)
{
    sptr<IRemoteObject> started;
    {
        MutexLock lock(mutex_);
        if (auto object = FindAlive(running_, id)) {
            return object;
        }
        started = FindAlive(loadable_, id);
    }
    SetRunning(id, started);
    return started;
}

void ScriptedManager::Record(const Call& call)
{
    MutexLock lock(mutex_);
    calls_.push_back(call);
}

InProcessManager::InProcessManager() : manager_(sptr<ScriptedManager>::MakeSptr())
{
    SystemAbilityManagerClient::GetInstance().OverrideManager(manager_);
}

InProcessManager::~InProcessManager()
{
    SystemAbilityManagerClient::GetInstance().OverrideManager(nullptr);
    manager_->WaitForCallbacks();
}

}  // namespace VEXA
