// SPDX-License-Identifier: Apache-2.0
#include "death_notifier.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "ipc_log.h"
#include "process_life.h"
#include "thread.h"

namespace VEXA::ipc {

void DeathNotifier::Post(const sptr<IRemoteObject>& object, sptr<Recipient> recipient)
{
    MutexLock lock(mutex_);
    notices_.push_back({object, std::move(recipient)});
    if (!started_) {
        started_ = StartThread("vexa-deaths", [this] { Run(); });
        if (!started_) {
            IPC_LOGE("no thread for death notices: they wait for the next death");
        }
    }
    posted_.NotifyOne();
}

bool DeathNotifier::Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient)
{
    Notice cancelled;  // its references go after the lock
    MutexLock lock(mutex_);
    const auto found = std::find_if(notices_.begin(), notices_.end(),
        [&](const Notice& notice) { return notice.object.GetRefPtr() == object && notice.recipient == recipient; });
    if (found == notices_.end()) {
        return false;
    }
    cancelled = std::move(*found);
    notices_.erase(found);
    return true;
}

void DeathNotifier::Run()
{
    while (!ProcessLife::Get().Exiting()) {
        Notice notice;
        {
            MutexLock lock(mutex_);
            posted_.WaitFor(
                mutex_, std::chrono::minutes(1), [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return !notices_.empty(); });
            if (notices_.empty()) {
                continue;
            }
            notice = std::move(notices_.front());
            notices_.pop_front();
        }
        try {
            notice.recipient->OnRemoteDied(notice.object);
        } catch (const std::exception& error) {
            IPC_LOGE("a death recipient threw: %{public}s", error.what());
        } catch (...) {
            IPC_LOGE("a death recipient threw");
        }
    }
}

}  // namespace VEXA::ipc
