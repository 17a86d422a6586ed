// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

#include <sys/statvfs.h>
#include <sys/syscall.h>

namespace {

// Answers, as an errno, when the disk is told to take everything. Set before an engine that waits for the disk starts.
std::function<int()> g_disk;
// 0 or more: the file system knows only plain renames, and the one of that number, counted from 1, fails.
std::atomic<int> g_failingRename{-1};
std::atomic<int> g_renames{0};
std::atomic<unsigned> g_freeBlocks{1U << 30};
// Added to the birth of every directory, as if all had been made anew with the inodes of the old.
std::atomic<uint32_t> g_later{0};

long Result(int reason)
{
    errno = reason;
    return reason == 0 ? 0 : -1;
}

}  // namespace

std::atomic<bool> VEXA::UpdateEngine::test::g_isStateFull{false};

// In place of the C library's.
extern "C" int statx(int fd, const char* path, int flags, unsigned mask, struct statx* status) noexcept
{
    const long result = syscall(SYS_statx, fd, path, flags, mask, status);
    status->stx_mask |= STATX_BTIME;
    status->stx_btime.tv_nsec += g_later;
    return static_cast<int>(result);
}

extern "C" int syncfs(int) noexcept
{
    return static_cast<int>(Result(g_disk()));
}

extern "C" int fsync(int)
{
    return static_cast<int>(Result(g_disk()));
}

extern "C" __attribute__((visibility("default"))) ssize_t pwrite64(
    int fd, const void* data, size_t size, off64_t offset)
{
    return VEXA::UpdateEngine::test::g_isStateFull ? Result(ENOSPC) : syscall(SYS_pwrite64, fd, data, size, offset);
}

extern "C" int fstatvfs(int, struct statvfs* status) noexcept
{
    status->f_frsize = 4096;
    status->f_bavail = g_freeBlocks;
    return 0;
}

extern "C" int renameat2(int fromFd, const char* from, int toFd, const char* to, unsigned flags) noexcept
{
    const bool isPlain = g_failingRename >= 0;
    return static_cast<int>(isPlain ? Result(EINVAL) : syscall(SYS_renameat2, fromFd, from, toFd, to, flags));
}

extern "C" int renameat(int fromFd, const char* from, int toFd, const char* to) noexcept
{
    const bool fails = ++g_renames == g_failingRename;
    return static_cast<int>(fails ? Result(EIO) : syscall(SYS_renameat2, fromFd, from, toFd, to, 0));
}

namespace VEXA::UpdateEngine::test {
namespace {

using namespace std::chrono_literals;

class ServiceEngine : public EngineTest {
protected:
    void TearDown() override
    {
        engine.reset();
        g_isStateFull = false;
        g_failingRename = -1;
        g_later = 0;
    }
    // Opens the service's state while the service does not run.
    std::unique_ptr<TaskStore> Store() const
    {
        std::string error;
        auto store = TaskStore::Open(folders.Target() / ".migrate-state.db", error);
        EXPECT_NE(store, nullptr) << error;
        return store;
    }
};

TEST_F(ServiceEngine, PausesAndGoesOnAlsoInTheNextLife)
{
    folders.AddPackage("0", kLarge / 2);
    folders.AddPackage("a", kLarge);
    Run();
    EXPECT_EQ(engine->Pause(TaskPauseReason::USER).errorNum, MIGRATE_ERROR_NOTHING);
    RunSlowly();
    const auto percentNow = [this] { return engine->GetInfo(MigrateStage::NONE).migrateProgress.percent; };
    ASSERT_TRUE(Eventually([&] { return percentNow() > 50; }));
    EXPECT_EQ(engine->Pause(TaskPauseReason::NETWORK).errorNum, 0);
    EXPECT_EQ(engine->GetInfo(MigrateStage::NONE).taskInfos.at(1).pauseReason, TaskPauseReason::NETWORK);
    std::this_thread::sleep_for(50ms);  // the piece under way
    const int64_t before = engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic, before);
    const auto copied = fs::file_size(folders.Target() / ".staging-2" / "data" / "file");
    EXPECT_LE(static_cast<int64_t>(kLarge) - before, static_cast<int64_t>(copied));
    const uint32_t percent = percentNow();
    Run(kSlow);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(State(), TaskStatus::PAUSED);
    // Bytes that are copied again count once.
    EXPECT_EQ(percentNow(), percent);
    EXPECT_EQ(engine->Resume().errorNum, 0);
    uint32_t last = percent;
    EXPECT_TRUE(Eventually([&] {
        const uint32_t now = percentNow();
        EXPECT_TRUE(now >= last && now <= 100) << last << " " << now;
        return (last = now) == 100;
    }));
    EXPECT_EQ(Outcome(), "0:3 a:3 ");
    EXPECT_EQ(engine->Resume().errorNum, MIGRATE_ERROR_NOTHING);
}

// Everything that the workers have to know wakes them: nothing is left to their own look once a second.
TEST_F(ServiceEngine, NothingWaitsForAnIdleWorker)
{
    folders.AddPackage("a", kLarge);
    folders.AddPackage("r", 10, R"({"reserved":true})");
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 6; ++round) {
        Run();
        EXPECT_EQ(MoveAll(), "a:3 ");
        engine->Restore("r", "");
        ASSERT_TRUE(Eventually([this] { return folders.TargetNames() == "a r "; }));
        engine->RemovePackage("a");
        engine->StartPackage("a");
        EXPECT_EQ(Outcome(), "a:3 ");
        engine->ClearReserved("r", "");
        ASSERT_TRUE(Eventually([this] { return folders.TargetNames() == "a "; }));
        RunSlowly();
        engine->Pause(TaskPauseReason::USER);
        std::this_thread::sleep_for(50ms);  // the piece under way
        engine->RemoveUser(MIGRATE_ALL_USERS);
        ASSERT_TRUE(Eventually([this] { return folders.TargetNames() == "a "; }));
    }
    engine.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST_F(ServiceEngine, TheRemainingTimeIsThatOfTheRate)
{
    folders.AddPackage("a", 10 * kLarge);
    RunSlowly();
    const auto progress = [this] { return engine->GetInfo(MigrateStage::NONE).migrateProgress; };
    EXPECT_TRUE(Eventually([&] { return progress().percent >= 8; }));
    EXPECT_GE(progress().remainingTime, 4U);
    EXPECT_LE(progress().remainingTime, 9U);
}

TEST_F(ServiceEngine, WhatHasNoRoomIsNotBegun)
{
    folders.AddPackage("a", kLarge);
    Folders::Write(folders.Source() / "hole" / "file", "");
    fs::resize_file(folders.Source() / "hole" / "file", 1 << 30);
    g_freeBlocks = 100;
    Run();
    EXPECT_EQ(MoveAll(), "a:4/26r hole:3 ");
    g_freeBlocks = 1U << 30;
}

TEST_F(ServiceEngine, ASuddenEndLeavesNoTraceAndIsNoticedBetweenTheRenameAndItsNote)
{
    folders.AddPackages("a b c", 10);
    Run();
    EXPECT_EQ(MoveAll(), "a:3 b:3 c:3 ");
    EXPECT_EQ(engine->OwnBackups(5), 0);
    engine.reset();
    {
        // As the disk is when the process ends there: for `a`, whose owned copy has been replaced, the rename has
        // happened, for `b` it has not, and for `c` the first of two.
        const auto store = Store();
        store->Set(StateValue::STATUS, static_cast<int64_t>(TaskStatus::RUNNING));
        for (const char* name : {"a", "b", "c"}) {
            Task task = *store->Tasks().Find(TaskKind::MIGRATE, name);
            task.staged = store->FindPlaced(name)->id;
            task.staged.inode += task.source == "c" ? 1 : 0;
            task.status = TaskStatus::RUNNING;
            task.subStatus = MIGRATE_SUB_PLACING;
            store->Save(task);
        }
        Placed replaced = *store->FindPlaced("a");
        ++replaced.id.inode;
        store->SavePlaced("a", &replaced);
        store->SavePlaced("b", nullptr);
    }
    fs::remove_all(folders.Target() / "b");
    fs::rename(folders.Target() / "c", folders.Target() / ".staging-3-old");
    for (const char* name : {".staging-2", ".staging-77", ".staging-8-older", ".staging-9x", ".staging-of-mine"}) {
        Folders::Write(folders.Target() / name / "data" / "file", "a part");
    }
    std::string levels = "/.staging-78";
    for (int level = 0; level < 205; ++level) {
        levels += "/d";
    }
    fs::create_directories(folders.Target().string() + levels);
    // However much it is that is left, it does not delay the start, nor is it in the way.
    Open();
    const std::string others = ".staging-8-older .staging-9x .staging-of-mine a ";
    EXPECT_EQ(folders.TargetNames(), ".staging-4 .staging-5 .staging-6 " + others + "c ");
    EXPECT_EQ(State(), TaskStatus::RUNNING);
    EXPECT_EQ(Results(), "a:3 b:0 c:0 ");
    engine->Start();
    EXPECT_EQ(Outcome(), "a:3 b:3 c:3 ");
    EXPECT_TRUE(Eventually([this] { return !Lines().empty(); }));
    const std::string tooDeep = Lines().substr(0, Lines().find(' ') + 1);
    EXPECT_EQ(Lines(), tooDeep + "can't be removed\n");
    EXPECT_TRUE(Eventually([&] { return folders.TargetNames() == tooDeep + others + "b c "; }));
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);
    EXPECT_EQ(engine->StartAll().errorNum, 0);  // all are known as its own
    EXPECT_EQ(Outcome(), "a:3 b:3 c:3 ");
    g_later = 1;
    EXPECT_EQ(MoveAll(), "error 1: a:4/23 b:4/23 c:4/23 ");
}

// The only copy of `b` is where a sudden end between two moves has left it, and that of `c` is nobody's.
TEST_F(ServiceEngine, WhatIsInTheTargetIsKnownByItsMarksAlone)
{
    folders.AddPackages("a b", 10);
    Run();
    EXPECT_EQ(MoveAll(), "a:3 b:3 ");
    std::string error;
    const EngineOptions other{folders.Source(), folders.Target(), folders.Root() / "other.db"};
    EXPECT_EQ(MigrationEngine::Open(other, listener, error), nullptr);
    EXPECT_EQ(error, other.target + ": process " + std::to_string(getpid()) + " uses it as its target");
    engine.reset();
    fs::rename(folders.Target() / "b", folders.Target() / ".staging-9-old");
    Folders::Write(folders.Target() / ".staging-8-old" / "c", "");
    (Open(0, false, other.stateFile), engine->Start());
    EXPECT_EQ(folders.TargetNames(), ".staging-8-old a b ");
    EXPECT_EQ(Lines(), ".staging-8-old is left alone: nothing that replaces it is in its place\n");
    EXPECT_EQ(engine->OwnBackups(5), 0);
    EXPECT_EQ(MoveAll(), "a:3 b:3 ");
    // A package of another source is another's.
    engine.reset();
    fs::rename(folders.Source(), folders.Root() / "moved");
    folders.AddPackages("a", 10);
    fs::remove(other.stateFile);
    fs::rename(folders.Source(), folders.Root() / "second");
    fs::create_directory_symlink("second", folders.Source());
    (Open(0, false, other.stateFile), engine->Start());
    EXPECT_EQ(MoveAll(), "error 1: a:4/23 ");
}

TEST_F(ServiceEngine, WhatIsClearedIsGoneOrStaysWithItsStatus)
{
    folders.AddPackage("r", 10, R"({"reserved":true})");
    Run();
    const auto status = [this] {
        std::vector<PakMigrateInfo> packages;
        EXPECT_EQ(engine->GetPackages(packages).errorNum, 0);
        return packages.at(0).status;
    };
    engine->Restore("r", "");
    ASSERT_TRUE(Eventually([&] { return status() == kFinished; }));
    g_renames = 0;
    g_failingRename = 1;
    EXPECT_EQ(engine->ClearReserved("r", "").errorNum, MIGRATE_ERROR_WRITE);
    EXPECT_EQ(status(), kFinished);
    EXPECT_EQ(folders.TargetNames(), "r ");
    EXPECT_EQ(Lines(), "r can't be moved aside: Input/output error\n");
    g_failingRename = -1;
    // The disk doesn't take the note: it is not gone without one.
    g_disk = [] { return EIO; };
    Run(0, true);
    EXPECT_EQ(engine->ClearReserved("r", "").errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(status(), kFinished);
    EXPECT_EQ(folders.TargetNames(), "r ");
}

TEST_F(ServiceEngine, WhatCanNotBeRememberedIsRefused)
{
    folders.AddPackage("a", 10);
    folders.AddPackage("r", 10, R"({"reserved":true})");
    Run();
    g_isStateFull = true;
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(engine->StartPackage("a").errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(engine->Restore("r", "").errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(engine->SetPolicy(MIGRATE_POLICY_STOP).errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(engine->SetPreset({}).errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(engine->AdjustPriority("r", 1).errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(State(), TaskStatus::IDLE);
    EXPECT_EQ(Results(), "");
    EXPECT_EQ(listener.Heard(), "");
    EXPECT_EQ(Lines().rfind("state: database or disk is full\n", 0), 0U);

    g_isStateFull = false;
    EXPECT_EQ(engine->Restore("r", "").errorNum, 0);
    EXPECT_TRUE(Eventually([this] { return listener.Heard() == "r:0 r:1 r:1 r:3 "; }));
    g_isStateFull = true;
    EXPECT_EQ(engine->ClearReserved("r", "").errorNum, MIGRATE_ERROR_STATE);
    EXPECT_EQ(folders.TargetNames(), "r ");
    g_isStateFull = false;
    EXPECT_EQ(engine->ClearReserved("r", "").errorNum, 0);
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames().empty(); }));
}

TEST_F(ServiceEngine, NothingIsPlacedThatTheNextStartWouldNotKnow)
{
    folders.AddPackage("a", kLarge);
    RunSlowly();
    g_isStateFull = true;
    EXPECT_EQ(Outcome(), "a:4/7r ");
    EXPECT_TRUE(folders.TargetNames().empty());

    // Too late for the note that it has been placed: the start after finds that out, and so does the next transaction.
    g_disk = [this] {
        g_isStateFull = engine->GetStatus(MigrateStage::INSTALL).isTaskExist;
        return 0;
    };
    for (const bool isWrittenLater : {false, true}) {
        g_isStateFull = false;
        Run(0, true);
        engine->StartAll();  // at first it is open still, as its failure could not be written
        ASSERT_TRUE(Ends());
        g_isStateFull = false;
        if (isWrittenLater) {
            EXPECT_EQ(engine->SetPolicy(MIGRATE_POLICY_GO_ON).errorNum, 0);
            EXPECT_EQ(engine->RemoveUser(MIGRATE_ALL_USERS).errorNum, 0);
        }
        g_isStateFull = true;
        Open();
        EXPECT_EQ(Results(), isWrittenLater ? "" : "a:3 ");
        g_isStateFull = false;
        EXPECT_EQ(engine->OwnBackups(5), 0);
    }
}

TEST_F(ServiceEngine, AFileSystemThatCanNotExchangeCostsNoPackageEither)
{
    const std::pair<int, const char*> failures[] = {{0, "a:3 "}, {1, "a:4/25 "}, {2, "a:4/25 "}};
    folders.AddPackage("a", 10);
    Run();
    EXPECT_EQ(MoveAll(), "a:3 ");
    for (const auto& [failure, result] : failures) {
        const std::string content = "of " + std::to_string(failure);
        const std::string before = FileText(folders.Target() / "a" / "data" / "file");
        Folders::Write(folders.Source() / "a" / "data" / "file", content);
        g_renames = 0;
        g_failingRename = failure;
        EXPECT_EQ(MoveAll(), result);
        EXPECT_EQ(FileText(folders.Target() / "a" / "data" / "file"), failure == 0 ? content : before);
        EXPECT_EQ(folders.TargetNames(), "a ");
    }
}

// The disk has the copy, its mark (1) and its note (n) before it has the name, and the name before the task ends;
// requests are answered meanwhile. A small package is synced by itself.
TEST_F(ServiceEngine, APackageIsPlacedWhenTheDiskHasIt)
{
    folders.AddPackage("small", 10);
    folders.AddPackage("large", 10);
    for (int i = 0; i < 64; ++i) {
        Folders::Write(folders.Source() / "large" / std::to_string(i), "");
    }
    for (const std::string name : {"small", "large"}) {
        int calls = 0;
        int failing = 0;
        int reason = 0;
        std::string seen;
        g_disk = [&] {
            EXPECT_TRUE(engine->GetStatus(MigrateStage::NONE).isTaskExist);
            const fs::directory_iterator marks(folders.Target() / ".migrate-state.placed");
            const std::string names = folders.TargetNames() + std::to_string(std::distance(begin(marks), end(marks))) +
                                      (engine->GetStatus(MigrateStage::INSTALL).isTaskExist ? "n " : " ");
            seen += seen.size() >= names.size() && seen.substr(seen.size() - names.size()) == names ? "" : names;
            return ++calls == failing ? reason : 0;
        };
        const auto outcome = [&](int call, int fault) {
            fs::remove_all(folders.Target());
            fs::create_directory(folders.Target());
            calls = 0;
            failing = call;
            reason = fault;
            Run(0, true);
            EXPECT_EQ(engine->StartPackage(Name(name.c_str())).errorNum, 0);
            std::string text = Outcome();
            engine.reset();
            return text + folders.TargetNames();
        };
        EXPECT_EQ(outcome(0, 0), name + ":3 " + name + " ");
        EXPECT_EQ(seen, (name == "small" ? ".staging-1 0 " : "") + std::string(".staging-1 1n ") + name + " 1n ");
        const int all = calls;
        EXPECT_EQ(all, name == "small" ? 6 : 4);  // of the content; the mark, the state, and the name
        for (int call = 1; call <= all; ++call) {
            EXPECT_EQ(outcome(call, ENOSPC), name + ":4/26r " + (call == all ? name + " " : ""));
        }
        EXPECT_EQ(outcome(1, EIO), name + ":4/25 ");
    }
    // A package that is taken back meanwhile is not placed any more.
    g_disk = [this] {
        engine->RemoveUser(MIGRATE_ALL_USERS);
        return 0;
    };
    Run(0, true);
    engine->StartAll();
    EXPECT_TRUE(Eventually([this] { return State() == TaskStatus::IDLE && folders.TargetNames().empty(); }));
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
