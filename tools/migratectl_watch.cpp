// SPDX-License-Identifier: Apache-2.0
// Commands that start something and wait until it has ended.
#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>

#include "migratectl_progress_view.h"
#include "migratectl_request.h"
#include "vexa/base/mutex.h"

namespace migratectl {
namespace {

using Clock = std::chrono::steady_clock;

// The package's task is found as the service finds packages: by directory, else by application. Of several the newest
// counts, which is the one just asked for; what others wait for or fail with does not.
std::optional<int> JudgeOne(const std::string& name, const MigrateInfo& info)
{
    const auto rank = [&name](const TaskInfo& task) {
        return std::tuple(task.source == name, task.displayPolicy.displayBundleName == name, task.id);
    };
    const auto found = std::ranges::max_element(info.taskInfos, {}, rank);
    if (found == info.taskInfos.end() || rank(*found) < std::tuple(false, true, 0U)) {
        return EXIT_INCOMPLETE;
    }
    if (!HasEnded(static_cast<int64_t>(found->status))) {
        return std::nullopt;
    }
    return found->status == TaskStatus::FINISHED ? EXIT_DONE : EXIT_INCOMPLETE;
}

// Follows what was asked for through the answers to GetMigrateInfo: one package, or all of them. Events only announce:
// what counts is what the service says when it is asked. A death of the service on the way is survived: it is started
// again by the next question.
class Pursuit {
public:
    // Follows the package that the line names, by its directory or its application; all packages when it names none.
    // `hasTasks`: there is something to move, even if no task is seen.
    Pursuit(const CommandLine& line, MigrateStage stage, bool hasTasks)
        : line_(line), stage_(stage), hasTasks_(hasTasks)
    {}

    // Asks how things stand. The exit status when it is time to end: EXIT_DONE when what was asked for is moved,
    // EXIT_INCOMPLETE when it has failed or was dropped, EXIT_UNREACHABLE when the service stays away for half a
    // minute.
    std::optional<int> Look(MigrateInfo& info)
    {
        constexpr std::chrono::seconds kPatience(30);
        BusinessError error;
        const int32_t result = Client<MigrateServerKits>().GetMigrateInfo(stage_, info, error);
        isAnswered_ = result == MIGRATE_SUCCESS;
        if (isAnswered_) {
            lastAnswer_ = Clock::now();
            return line_.name.empty() ? JudgeAll(info) : JudgeOne(line_.name, info);
        }
        const bool isPatient = Clock::now() - lastAnswer_ < kPatience;
        return isPatient ? std::nullopt : std::optional(Judge(line_.options, line_.command, result));
    }
    bool IsAnswered() const { return isAnswered_; }

private:
    // When there are no tasks any more, somebody has dropped them. When none was ever seen there was nothing to move,
    // unless `hasTasks_` says otherwise.
    std::optional<int> JudgeAll(const MigrateInfo& info)
    {
        for (const TaskInfo& task : info.taskInfos) {
            isMoved_[task.id] = task.status == TaskStatus::FINISHED;
        }
        const int32_t status = info.migrateProgress.status;
        if (!HasEnded(status) && status != static_cast<int32_t>(TaskStatus::IDLE)) {
            return std::nullopt;
        }
        const bool isEachMoved = std::ranges::all_of(isMoved_, [](const auto& task) { return task.second; });
        const bool isAllMoved = isMoved_.empty() ? !hasTasks_ : isEachMoved;
        return isAllMoved ? EXIT_DONE : EXIT_INCOMPLETE;
    }

    const CommandLine& line_;
    const MigrateStage stage_;
    const bool hasTasks_;
    std::map<uint32_t, bool> isMoved_;  // every task that there has been since the first look
    bool isAnswered_ = false;
    Clock::time_point lastAnswer_ = Clock::now();
};

// Shows a migration: by events, and once a second by what the service says when it is asked. Stays when it has ended,
// because an event may come late.
class Watcher {
public:
    explicit Watcher(const Options& options) : options_(options), view_(options.width) {}

    // Runs on the threads that bring events.
    void OnEvent(const EventInfo& event)
    {
        MutexLock lock(mutex_);
        if (!isShowing_) {
            return;
        }
        const auto& tasks = event.taskProgresses;
        isStale_ = isStale_ || HasEnded(event.progress.status) ||
                   std::any_of(tasks.begin(), tasks.end(), [](const auto& task) { return HasEnded(task.status); });
        if (options_.json) {
            PrintJson(ToJson(event));
        } else {
            isStale_ = !view_.Update(event) || isStale_;
        }
        changed_.NotifyAll();
    }

    // Returns when there is an exit status.
    int Run(Pursuit pursuit)
    {
        constexpr std::chrono::seconds kLook(1);
        for (;;) {
            {
                MutexLock lock(mutex_);
                isShowing_ = true;
                isStale_ = false;  // what comes from here on makes the answer stale
            }
            MigrateInfo info;
            const auto status = pursuit.Look(info);
            MutexLock lock(mutex_);
            if (!options_.json && pursuit.IsAnswered()) {
                view_.Refresh(info);
            }
            if (status.has_value()) {
                isShowing_ = false;
                view_.Erase();
                return *status;
            }
            changed_.WaitFor(mutex_, kLook, [this]() VEXA_REQUIRES(mutex_) { return isStale_; });
        }
    }

private:
    const Options options_;
    Mutex mutex_{LockRank::Program};
    CondVar changed_;
    ProgressView view_ VEXA_GUARDED_BY(mutex_);
    bool isShowing_ VEXA_GUARDED_BY(mutex_) = false;  // what happens before the start is no news
    bool isStale_ VEXA_GUARDED_BY(mutex_) = false;
};

int32_t AskToStart(const CommandLine& line, BusinessError& error)
{
    auto& kits = Client<MigrateServerKits>();
    if (line.name.empty()) {
        return kits.StartMigrate(error);
    }
    if (line.target.empty() && line.priority == 0) {
        return kits.StartPakMigrate(line.name, error);
    }
    return kits.StartPakMigration(
        line.name, line.target, "{\"priority\":" + std::to_string(line.priority) + "}", error);
}

}  // namespace

int StartMigration(const CommandLine& line)
{
    auto& kits = Client<MigrateServerKits>();
    const auto watcher = std::make_shared<Watcher>(line.options);
    if (line.waits) {
        const auto watch = [watcher](const MigrateStage&, const EventInfo& event) { watcher->OnEvent(event); };
        if (const int status = Judge(line.options, line.command, kits.On({watch})); status != EXIT_DONE) {
            return status;
        }
    }
    BusinessError error;
    const int32_t result = AskToStart(line, error);
    int status = Finish(line.options, line.command, result, error);
    if (!line.waits) {
        return status;
    }
    const bool isBegun = status == EXIT_DONE;
    if (isBegun || error.errorNum == MIGRATE_ERROR_SOME_PACKAGES || error.errorNum == MIGRATE_ERROR_BUSY) {
        status = watcher->Run({line, MigrateStage::NONE, !isBegun});
        const Action showAll = Request(ShowResult, &MigrateServerKits::GetMigrateResult);
        const Action showOne = Request(&MigrateServerKits::GetPakMigrationTaskStatus, &CommandLine::name);
        (line.name.empty() ? showAll : showOne)(line);
    }
    kits.Off();
    return status;
}

int RestoreApp(const CommandLine& line)
{
    constexpr std::chrono::milliseconds kLook(200);
    const Action restore = Request(kAnError, &ReserveMigrateKits::RestoreApp, &CommandLine::name, &CommandLine::scene);
    const Action show =
        Request(ShowEvents, &ReserveMigrateKits::GetRestoreAppStatus, &CommandLine::name, &CommandLine::scene);
    if (const int status = restore(line); status != EXIT_DONE || !line.waits) {
        return status;
    }
    Pursuit pursuit(line, MigrateStage::RESTORE, true);
    for (;; std::this_thread::sleep_for(kLook)) {
        MigrateInfo info;
        if (const auto status = pursuit.Look(info)) {
            show(line);
            return *status;
        }
    }
}

}  // namespace migratectl
