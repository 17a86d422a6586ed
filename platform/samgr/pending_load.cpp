// SPDX-License-Identifier: Apache-2.0
#include "pending_load.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "vexa/ipc/ipc_skeleton.h"

namespace VEXA::samgr {

namespace {

using std::chrono::steady_clock;

LoadOutcome Failure(int32_t systemAbilityId, int32_t error)
{
    return {systemAbilityId, error, nullptr, ResultText(error)};
}

int32_t WholeSecondsUntil(steady_clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - steady_clock::now()).count();
    return static_cast<int32_t>(std::clamp<int64_t>(left, 1, kManagerWaitSeconds));
}

}  // namespace

class PendingLoad::ManagerRecipient : public IRemoteObject::DeathRecipient {
public:
    explicit ManagerRecipient(const sptr<PendingLoad>& load) : load_(load) {}
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        load_->Finish(Failure(load_->systemAbilityId_, IPC_DEAD_OBJECT));
    }

private:
    const sptr<PendingLoad> load_;
};

PendingLoad::PendingLoad(
    const sptr<IRemoteObject>& manager, int32_t systemAbilityId, steady_clock::time_point deadline, Done done)
    : IPCObjectStub(ISystemAbilityLoadCallback::GetDescriptor()),
      manager_(manager),
      systemAbilityId_(systemAbilityId),
      deadline_(deadline),
      done_(std::move(done))
{}

int32_t PendingLoad::Ask()
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, WholeSecondsUntil(deadline_));
    if (!WriteHead(data, systemAbilityId_) || !data.WriteRemoteObject(sptr<IRemoteObject>(this))) {
        return IPC_FAILED;
    }
    return manager_->SendRequest(LOAD_SYSTEM_ABILITY, data, reply, option);
}

void PendingLoad::FailWithManager()
{
    const auto recipient = sptr<DeathRecipient>(new ManagerRecipient(this));
    manager_->AddDeathRecipient(recipient);
    {
        MutexLock lock(mutex_);
        if (done_ != nullptr) {
            recipient_ = recipient;
            return;
        }
    }
    manager_->RemoveDeathRecipient(recipient);
}

void PendingLoad::Abandon()
{
    Done done;  // what it holds goes after the lock
    MutexLock lock(mutex_);
    done.swap(done_);
}

int32_t PendingLoad::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel&, MessageOption&)
{
    LoadOutcome outcome;
    if (data.ReadInterfaceToken() != GetObjectDescriptor() || !ReadLoadOutcome(code, data, outcome)) {
        return SAMGR_BAD_REQUEST;
    }
    outcome.systemAbilityId = systemAbilityId_;
    Take(std::move(outcome));
    return SAMGR_OK;
}

void PendingLoad::Take(LoadOutcome outcome)
{
    if (outcome.error == SAMGR_OK &&
        !IPCSkeleton::AwaitProcess(outcome.object, std::min(deadline_, steady_clock::now() + kGreetTime))) {
        outcome.object = nullptr;  // lets go of it before the wait
        const int32_t error = AskAgain();
        if (error == SAMGR_OK) {
            return;
        }
        outcome = Failure(systemAbilityId_, error);
    }
    Finish(outcome);
}

int32_t PendingLoad::AskAgain()
{
    std::chrono::milliseconds pause{};
    {
        MutexLock lock(mutex_);
        if (done_ == nullptr) {
            return IPC_FAILED;  // nobody waits any more
        }
        pause = std::exchange(pause_, std::min(2 * pause_, kLongestPause));
    }
    if (steady_clock::now() + pause >= deadline_) {
        return IPC_TIMED_OUT;
    }
    std::this_thread::sleep_for(pause);
    return Ask();
}

void PendingLoad::Finish(const LoadOutcome& outcome)
{
    Done done;
    sptr<DeathRecipient> recipient;
    {
        MutexLock lock(mutex_);
        done.swap(done_);
        recipient.Swap(recipient_);
    }
    if (recipient != nullptr) {
        manager_->RemoveDeathRecipient(recipient);
    }
    if (done != nullptr) {
        done(outcome);
    }
}

}  // namespace VEXA::samgr
