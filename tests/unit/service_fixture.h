// SPDX-License-Identifier: Apache-2.0
// A source and a target directory, and an engine between them.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <set>

#include "migration_engine.h"
#include "support/processes.h"
#include "vexa/base/mutex.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine::test {

namespace fs = std::filesystem;
using VEXA::test::Eventually;
using VEXA::test::FileText;

// "/26r ", the code of an error, and whether the same may be tried again.
inline std::string Fault(const ErrorInfo& error)
{
    return (error.code != 0 ? "/" + std::to_string(error.code) : "") + (error.canRetry ? "r " : " ");
}

// "r1:0 r1:1 r1:3 ", the status of every event, with its error.
inline std::string Statuses(const std::vector<RestoreEventInfo>& events)
{
    std::string text;
    for (const RestoreEventInfo& event : events) {
        text += event.restoreAppInfo.scanSourceDir + ":" + std::to_string(event.status) + Fault(event.errorInfo);
    }
    return text;
}

class Folders {
public:
    Folders()
    {
        fs::create_directories(Source());
        fs::create_directories(Target());
    }

    fs::path Root() const { return root_.Path(); }
    fs::path Source() const { return Root() / "source"; }
    fs::path Target() const { return Root() / "target"; }

    static void Write(const fs::path& file, const std::string& text)
    {
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }
    // Packages whose names are parted by blanks, with one file of so many bytes each.
    void AddPackage(const std::string& names, size_t bytes, const std::string& manifest = "") const
    {
        std::istringstream stream(names);
        for (std::string name; stream >> name;) {
            Write(Source() / name / "data" / "file", std::string(bytes, 'x'));
            if (!manifest.empty()) {
                Write(Source() / name / "manifest.json", manifest);
            }
        }
    }
    // Adds a package with a pipe, which can't be copied.
    void AddUnsupported(const std::string& package) const
    {
        fs::create_directories(Source() / package);
        ASSERT_EQ(mkfifo((Source() / package / "pipe").c_str(), 0600), 0);
    }
    // "a b ", the names in the target, those of the service's own state left out.
    std::string TargetNames() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(Target())) {
            names.insert(entry.path().filename());
        }
        std::string text;
        for (const std::string& name : names) {
            text += name.rfind(".migrate-state", 0) == 0 ? "" : name + " ";
        }
        return text;
    }

private:
    const VEXA::test::TempDir root_;
};

// Not 0: no room is left for the state.
extern std::atomic<int> g_isStateFull;
// 0 or more: the file system knows only plain renames, and the one of that number, counted from 1, fails.
extern std::atomic<int> g_failingRename;
extern std::atomic<int> g_freeBlocks;
// Added to the birth of every directory, as if all had been made anew with the inodes of the old.
extern std::atomic<int> g_later;
// Answers, as an errno, when the disk is told to take everything. Set before an engine that waits for the disk starts.
extern std::function<int()> g_disk;

inline constexpr auto kFinished = static_cast<int32_t>(TaskStatus::FINISHED);

class RecordingListener : public EngineListener {
public:
    void OnTask(const TaskProgress& task) override
    {
        MutexLock lock(mutex_);
        const auto status = static_cast<TaskStatus>(task.status);
        const bool isInHand = status == TaskStatus::RUNNING || status == TaskStatus::PAUSED;
        EXPECT_TRUE((task.progress == 100) == (task.status == kFinished) && (task.subStatus != 0) == isInHand)
            << task.id;
        std::string& way = ways_[task.id];
        std::string step = task.subStatus == MIGRATE_SUB_PLACING ? "p" : std::to_string(task.status);
        step += task.pauseReason != 0 ? "(" + std::to_string(task.pauseReason) + ")" : "";
        way += way.ends_with(step) ? "" : step;
        if (task.status >= kFinished) {
            heard_ += std::to_string(task.id) + (way == "01p3" ? " " : ":" + way + " ");
            way.clear();
        }
    }
    void OnRestore(const RestoreEventInfo& event) override
    {
        MutexLock lock(mutex_);
        heard_ += Statuses({event});
    }
    // The numbers of the migration's tasks that have ended, and the status of every restoration's event, in order.
    // Behind a number stand the task's statuses, with p while it is placed, and a pause with its reason: "7:012(1)1p3
    // ". The usual ones, "01p3", are left out.
    std::string Heard() const
    {
        MutexLock lock(mutex_);
        return heard_;
    }

private:
    mutable Mutex mutex_{LockRank::CallbackHub};  // whose place it takes
    std::string heard_ VEXA_GUARDED_BY(mutex_);
    std::map<uint32_t, std::string> ways_ VEXA_GUARDED_BY(mutex_);
};

class EngineTest : public testing::Test {
protected:
    static constexpr size_t kLarge = 2000000;
    static constexpr uint64_t kSlow = 4000000;  // half a second for the above

    void TearDown() override
    {
        engine.reset();
        g_isStateFull = 0;
        g_failingRename = -1;
        g_freeBlocks = 1 << 30;
        g_later = 0;
        g_disk = [] { return 0; };
    }
    virtual EngineListener& Listener() { return listener; }
    // Ends the engine before, as a restart of the service does.
    void Open(uint64_t bytesPerSecond = 0, bool sync = false)
    {
        engine.reset();
        std::string error;
        const EngineOptions options{folders.Source(), folders.Target(), stateFile, bytesPerSecond, sync};
        engine = MigrationEngine::Open(options, Listener(), error);
        ASSERT_NE(engine, nullptr) << error;
    }
    void Run(uint64_t bytesPerSecond = 0, bool sync = false)
    {
        Open(bytesPerSecond, sync);
        engine->Start();
    }
    // Starts everything, slowly, and waits until the first package is on its way.
    void RunSlowly()
    {
        Run(kSlow);
        EXPECT_EQ(engine->StartAll().errorNum, 0);
        ASSERT_TRUE(Eventually([this] { return IsCopying(); }));
    }
    TaskStatus State() const { return static_cast<TaskStatus>(engine->GetStatus(MigrateStage::NONE).status); }
    bool Ends() const
    {
        return Eventually([this] { return State() == TaskStatus::FINISHED || State() == TaskStatus::FAILED; });
    }
    bool IsCopying() const { return engine->GetStatus(MigrateStage::DOWNLOAD).isTaskExist; }
    // "a:3 b:4/26r ", status and error of every package in the result.
    std::string Results() const
    {
        std::string text;
        for (const PackageResult& one : engine->GetResult().packages) {
            ReserveMigrationStatus status;
            EXPECT_EQ(engine->GetPackageStatus(Name(one.source.c_str()), status).errorNum, 0);
            EXPECT_EQ(std::pair(one.status, one.errorCode), std::pair(status.status, status.errorInfo.code));
            text += one.source + ":" + std::to_string(one.status) + Fault(status.errorInfo);
        }
        return text;
    }

    // Waits for the end of the migration; Results() then.
    std::string Outcome() const { return Ends() ? Results() : "no end of " + Results(); }
    // Starts everything and waits for its end. A refusal of the start stands before the outcome.
    std::string MoveAll() const
    {
        const int32_t error = engine->StartAll().errorNum;
        return (error == 0 ? "" : "error " + std::to_string(error) + ": ") + Outcome();
    }

    // The lines of the log so far, without those of requests that are carried out.
    std::string Lines() const
    {
        std::string text;
        for (const RecordedMessage& line : log.Messages()) {
            const bool isRequest = line.level == KOLOG_INFO && line.text.find(" of process ") != std::string::npos;
            text += isRequest ? "" : line.text + "; ";
        }
        return text;
    }

    RecordingLogSink log;
    std::string stateFile;
    Folders folders;
    RecordingListener listener;
    std::shared_ptr<MigrationEngine> engine;
};

}  // namespace VEXA::UpdateEngine::test
