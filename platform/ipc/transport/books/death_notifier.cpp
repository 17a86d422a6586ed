// SPDX-License-Identifier: Apache-2.0
#include "death_notifier.h"

#include <algorithm>

#include "foreign_code.h"
#include "process_life.h"
#include "transport/limits.h"

namespace VEXA::ipc {

bool DeathNotifier::Start()
{
    MutexLock lock(mutex_);
    KeepOneIdle();
    return threads_ > 0;
}

void DeathNotifier::Stop()
{
    MutexLock lock(mutex_);
    stopped_ = true;
    changed_.NotifyAll();
    changed_.WaitFor(mutex_, kDeathThreadIdle, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return threads_ == 0; });
}

void DeathNotifier::Post(Notices& notices)
{
    MutexLock lock(mutex_);
    notices_.splice(notices_.end(), notices);
    KeepOneIdle();
    changed_.NotifyAll();
}

bool DeathNotifier::Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient)
{
    Notices cancelled;  // its references go after the lock
    MutexLock lock(mutex_);
    const auto found = std::ranges::find_if(notices_,
        [&](const Notice& notice) { return notice.object.GetRefPtr() == object && notice.recipient == recipient; });
    if (found == notices_.end()) {
        return false;
    }
    cancelled.splice(cancelled.end(), notices_, found);
    return true;
}

void DeathNotifier::KeepOneIdle()
{
    if (threads_ > running_.size() || threads_ == kMostDeathThreads) {
        return;
    }
    if (startThread_("vexa-deaths", [this] { Run(); })) {
        ++threads_;
    }
}

DeathNotifier::Notices::iterator DeathNotifier::Next()
{
    const auto isFree = [this](const Notice& notice) VEXA_NO_THREAD_SAFETY_ANALYSIS {
        return std::ranges::find(running_, notice.recipient, &Notice::recipient) == running_.end();
    };
    return std::ranges::find_if(notices_, isFree);
}

void DeathNotifier::Run()
{
    const auto isDue = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return stopped_ || Next() != notices_.end(); };
    const auto noneRuns = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return running_.empty(); };
    MutexLock lock(mutex_);
    while (!ProcessLife::Exiting() && !stopped_) {
        if (!changed_.WaitFor(mutex_, kDeathThreadIdle, isDue)) {
            if (threads_ - running_.size() > 1) {
                --threads_;
                return;
            }
            continue;
        }
        if (!running_.empty() && Clock::now() < running_.back().since + kPatience) {
            changed_.WaitUntil(mutex_, running_.back().since + kPatience, noneRuns);
            continue;
        }
        TellNext();
    }
    --threads_;
    changed_.NotifyAll();
}

bool DeathNotifier::TellOne()
{
    MutexLock lock(mutex_);
    return TellNext();
}

bool DeathNotifier::TellNext()
{
    const auto next = Next();
    if (next == notices_.end()) {
        return false;
    }
    next->since = Clock::now();
    running_.splice(running_.end(), notices_, next);
    if (!notices_.empty()) {
        KeepOneIdle();
    }
    mutex_.unlock();
    RunForeign("a death recipient", [&] { next->recipient->OnRemoteDied(next->object); });
    mutex_.lock();
    Notice told = std::move(*next);
    mutex_.unlock();
    // A recipient that goes with its last holder may call back here.
    told = Notice();
    mutex_.lock();
    running_.erase(next);
    changed_.NotifyAll();
    return true;
}

}  // namespace VEXA::ipc
