// SPDX-License-Identifier: Apache-2.0
#include "death_notifier.h"

#include <algorithm>

#include "foreign_code.h"
#include "ipc_log.h"
#include "process_life.h"
#include "transport/limits.h"

namespace VEXA::ipc {

void DeathNotifier::Post(EndpointId process, const sptr<IRemoteObject>& object, sptr<Recipient> recipient)
{
    MutexLock lock(mutex_);
    notices_.push_back({process, object, std::move(recipient)});
    KeepOneIdle();
    changed_.NotifyAll();
}

bool DeathNotifier::Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient)
{
    Notice cancelled;  // its references go after the lock
    MutexLock lock(mutex_);
    const auto found = std::ranges::find_if(notices_,
        [&](const Notice& notice) { return notice.object.GetRefPtr() == object && notice.recipient == recipient; });
    if (found == notices_.end()) {
        return false;
    }
    cancelled = std::move(*found);
    notices_.erase(found);
    return true;
}

void DeathNotifier::KeepOneIdle()
{
    if (threads_ > running_.size() || threads_ == kMostDeathThreads) {
        return;
    }
    if (startThread_("vexa-deaths", [this] { Run(); })) {
        ++threads_;
    } else {
        IPC_LOGE("no thread for death notices: they wait for the next death");
    }
}

std::deque<DeathNotifier::Notice>::iterator DeathNotifier::Next()
{
    const auto isFree = [this](const Notice& notice) VEXA_NO_THREAD_SAFETY_ANALYSIS {
        return std::ranges::none_of(running_, [&](const Running& running) {
            return running.process == notice.process || running.recipient == notice.recipient.GetRefPtr();
        });
    };
    return std::ranges::find_if(notices_, isFree);
}

void DeathNotifier::Run()
{
    const auto isDue = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return Next() != notices_.end(); };
    const auto noneRuns = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return running_.empty(); };
    MutexLock lock(mutex_);
    while (!ProcessLife::Exiting()) {
        if (!changed_.WaitFor(mutex_, kDeathThreadIdle, isDue)) {
            if (threads_ - running_.size() > 1) {
                --threads_;
                return;
            }
            continue;
        }
        // The last of running_ began last.
        if (!running_.empty() && Clock::now() < running_.back().since + kPatience) {
            changed_.WaitUntil(mutex_, running_.back().since + kPatience, noneRuns);
            continue;
        }
        TellNext();
    }
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
    Notice notice = std::move(*next);
    notices_.erase(next);
    const Recipient* const recipient = notice.recipient.GetRefPtr();
    running_.push_back({notice.process, recipient, Clock::now()});
    if (!notices_.empty()) {
        KeepOneIdle();
    }
    mutex_.unlock();
    RunForeign("a death recipient", [&] { notice.recipient->OnRemoteDied(notice.object); });
    // A recipient that goes with its last holder may call back here.
    notice = Notice();
    mutex_.lock();
    std::erase_if(running_, [&](const Running& running) { return running.recipient == recipient; });
    changed_.NotifyAll();
    return true;
}

}  // namespace VEXA::ipc
