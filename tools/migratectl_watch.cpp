// SPDX-License-Identifier: Apache-2.0
#include "migratectl_watch.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "migratectl_progress_view.h"
#include "native_migrate/migrate_server_kits.h"
#include "vexa/base/mutex.h"

namespace migratectl {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

namespace {

using Clock = std::chrono::steady_clock;

// The events between the IPC threads and the one that shows them. Never goes: an event may come late.
class Events {
public:
    void Add(const EventInfo& event)
    {
        constexpr size_t kMost = 1000;
        MutexLock lock(mutex_);
        if (events_.size() < kMost) {
            events_.push_back(event);
        }
        changed_.NotifyAll();
    }
    std::vector<EventInfo> Take(std::chrono::milliseconds wait)
    {
        MutexLock lock(mutex_);
        changed_.WaitFor(mutex_, wait, [this]() VEXA_REQUIRES(mutex_) { return !events_.empty(); });
        return std::exchange(events_, {});
    }

private:
    Mutex mutex_{LockRank::Program};
    CondVar changed_;
    std::vector<EventInfo> events_ VEXA_GUARDED_BY(mutex_);
};

class Watcher {
public:
    Watcher(const Options& options, std::shared_ptr<Events> events, bool hasTasks)
        : options_(options), events_(std::move(events)), hasTasks_(hasTasks)
    {}

    int Run()
    {
        for (;;) {
            const auto now = Clock::now();
            if (isStale_ || now >= nextLook_) {
                nextLook_ = now + kLook;
                if (const int status = Look(now); status >= 0) {
                    return status;
                }
            }
            for (const EventInfo& event : events_->Take(kWait)) {
                Show(event);
            }
        }
    }

private:
    static constexpr std::chrono::milliseconds kWait{200};
    static constexpr std::chrono::seconds kLook{1};
    static constexpr std::chrono::seconds kPatience{30};

    // The exit status when it is time to end, else -1. Events only announce: what counts is what the service says
    // when it is asked.
    int Look(Clock::time_point now)
    {
        MigrateInfo info;
        BusinessError error;
        const int32_t result = MigrateServerKits::GetKitsInstance().GetMigrateInfo(MigrateStage::NONE, info, error);
        if (result != MIGRATE_SUCCESS) {
            if (now - lastAnswer_ < kPatience) {
                return -1;
            }
            view_.Finish();
            return Judge(options_, "watch", result);
        }
        lastAnswer_ = now;
        isStale_ = false;
        for (const TaskInfo& task : info.taskInfos) {
            isMoved_[task.id] = isMoved_[task.id] || task.status == TaskStatus::FINISHED;
        }
        if (!options_.json) {
            view_.Refresh(info);
        }
        const int32_t status = info.migrateProgress.status;
        if (!HasEnded(status) && status != static_cast<int32_t>(TaskStatus::IDLE)) {
            return -1;
        }
        view_.Finish();
        return IsAllMoved() ? EXIT_DONE : EXIT_INCOMPLETE;
    }

    // Somebody may have dropped tasks. Where none was seen there was nothing to move, unless it is known better.
    bool IsAllMoved() const
    {
        return isMoved_.empty()
                   ? !hasTasks_
                   : std::all_of(isMoved_.begin(), isMoved_.end(), [](const auto& task) { return task.second; });
    }

    void Show(const EventInfo& event)
    {
        isStale_ = isStale_ || HasEnded(event.progress.status);
        if (!options_.json) {
            isStale_ = !view_.Update(event) || isStale_;
            return;
        }
        std::string text;
        AppendJson(text, event);
        printf("%s\n", text.c_str());
        fflush(stdout);
    }

    const Options& options_;
    const std::shared_ptr<Events> events_;
    ProgressView view_;
    const bool hasTasks_;
    std::map<uint32_t, bool> isMoved_;  // every task that there has been since the first look
    bool isStale_ = true;
    Clock::time_point nextLook_;
    Clock::time_point lastAnswer_ = Clock::now();
};

}  // namespace

int StartAndWatch(const Options& options, const std::function<StartOutcome()>& start)
{
    auto& kits = MigrateServerKits::GetKitsInstance();
    const auto events = std::make_shared<Events>();
    ProgressCallback callback;
    callback.onProgress = [events](const MigrateStage&, const EventInfo& event) { events->Add(event); };
    int status = Judge(options, "watch", kits.On(callback));
    if (status != EXIT_DONE) {
        return status;
    }
    const StartOutcome outcome = start();
    status = outcome.exitStatus;
    if (outcome.isUnderWay) {
        // What happened before the start is no news.
        events->Take(std::chrono::milliseconds(0));
        const bool hasTasks = status != EXIT_DONE;
        status = Watcher(options, events, hasTasks).Run();
        PrintResult(options);
    }
    kits.Off();
    return status;
}

}  // namespace migratectl
