// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

#include <sys/syscall.h>

#include <atomic>

namespace {

// What the disk does when it is told to take everything, as an errno; set before an engine that waits for it starts.
std::function<int()> g_disk;
// No room is left for the state.
std::atomic<bool> g_isStateFull{false};
// Of a file system that knows nothing but plain renames: 0, or which of them, counted from 1, fails.
std::atomic<int> g_failingRename{-1};
std::atomic<int> g_renames{0};

long Result(int reason)
{
    errno = reason;
    return reason == 0 ? 0 : -1;
}

}  // namespace

// In place of the C library's.
extern "C" int syncfs(int) noexcept
{
    return static_cast<int>(Result(g_disk()));
}

extern "C" __attribute__((visibility("default"))) ssize_t pwrite64(
    int fd, const void* data, size_t size, off64_t offset)
{
    return g_isStateFull ? Result(ENOSPC) : syscall(SYS_pwrite64, fd, data, size, offset);
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
    }
};

TEST_F(ServiceEngine, MovesWhatCanBeMovedAndTellsWhatCanNot)
{
    folders.AddPackage("a", 5000, R"({"bundleName":"com.a","user":3})");
    folders.AddPackage("b", 7000, R"({"target":"b2"})");
    folders.AddPackage("bad", 1, "{");
    folders.AddPackage("later", 1, R"({"reserved":true})");
    folders.AddPackage("taken", 1);
    Folders::Write(folders.Target() / "taken" / "precious", "mine");
    folders.AddUnsupported("pipe");
    Run();
    const BusinessError error = engine->StartAll();
    EXPECT_EQ(error.errorNum, MIGRATE_ERROR_SOME_PACKAGES);
    ASSERT_EQ(error.data.size(), 2U);
    EXPECT_EQ(error.data[0].errorMessage.rfind("bad: ", 0), 0U);
    EXPECT_EQ(error.data[1].errorCode, MIGRATE_ERROR_TARGET);
    EXPECT_EQ(Outcome(), "a:3/0 b:3/0 bad:4/20 pipe:4/24 taken:4/23 ");
    EXPECT_TRUE(State() == TaskStatus::FAILED && engine->GetResult().failed == 3);
    EXPECT_EQ(folders.TargetNames(), "a b2 taken ");
    EXPECT_EQ(FileText(folders.Target() / "b2" / "data" / "file").size(), 7000U);
    EXPECT_EQ(FileText(folders.Target() / "taken" / "precious"), "mine");
}

TEST_F(ServiceEngine, AnswersAndMovesWhatIsChosenOfTheSource)
{
    folders.AddPackage("a", 1000, R"({"user":3,"targetUser":100,"modules":[{"type":1,"id":"m"}]})");
    folders.AddPackage("b", 500);
    folders.AddPackage("r", 9, R"({"reserved":true,"modules":[{"type":2,"id":"r"}]})");
    Run();
    EXPECT_EQ(engine->SetPreset({{"b"}, {{3, 7}}}).errorNum, 0);
    int64_t bytes = 0;
    EXPECT_EQ(engine->GetDataSize(bytes).errorNum, 0);
    EXPECT_EQ(bytes, 1000 + static_cast<int64_t>(fs::file_size(folders.Source() / "a" / "manifest.json")));
    std::vector<MigrationUser> users;
    EXPECT_EQ(engine->GetUsers(users).errorNum, 0);
    EXPECT_TRUE(users.size() == 2 && users[0].targetUser == 7);

    // For every module, whether it goes to the target, or is there.
    const auto policies = [this](bool isOnlyPlaced, const std::vector<ModuleInfo>& modules) {
        std::vector<ModuleMigrationPolicy> answers;
        EXPECT_EQ(engine->GetModulePolicies(isOnlyPlaced, modules, answers).errorNum, 0);
        std::string text;
        for (const ModuleMigrationPolicy& answer : answers) {
            text += answer.sourceModuleInfo.id + ":" + std::to_string(answer.targetModuleInfos.size()) + " ";
        }
        return text;
    };
    EXPECT_EQ(policies(false, {}), "m:1 r:0 ");
    EXPECT_EQ(policies(true, {{1, "m"}, {9, "?"}}), "m:0 ?:0 ");
    EXPECT_EQ(MoveAll(), "a:3/0 ");
    EXPECT_EQ(policies(true, {{1, "m"}, {9, "?"}}), "m:1 ?:0 ");

    fs::rename(folders.Source(), folders.Root() / "away");
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_SOURCE);
}

TEST_F(ServiceEngine, ASecondRunReplacesWhatTheFirstHasPlacedAndNothingElseAndItsOwnerStays)
{
    folders.AddPackages("a b", 100);
    Run();
    EXPECT_EQ(engine->OwnBackups(5), MIGRATE_ERROR_NOTHING);
    EXPECT_EQ(MoveAll(), "a:3/0 b:3/0 ");
    EXPECT_EQ(engine->OwnBackups(5), 0);
    Run();
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);
    EXPECT_TRUE(engine->OwnBackups(0) == 0 && engine->OwnBackups(5) == MIGRATE_ERROR_OWNER);  // root takes anybody's
    Folders::Write(folders.Source() / "a" / "data" / "file", "new");
    fs::rename(folders.Target() / "b", folders.Root() / "away");
    EXPECT_EQ(engine->OwnBackups(0), MIGRATE_ERROR_TARGET);
    Folders::Write(folders.Target() / "b" / "precious", "mine");
    EXPECT_EQ(MoveAll(), "error 1: a:3/0 b:4/23 ");
    EXPECT_EQ(FileText(folders.Target() / "a" / "data" / "file"), "new");
    EXPECT_EQ(folders.TargetNames(), "a b ");
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);  // the new copy is still the first one's
}

TEST_F(ServiceEngine, PausesAndGoesOnAlsoInTheNextLife)
{
    folders.AddPackage("a", kLarge);
    Run();
    EXPECT_EQ(engine->Pause(TaskPauseReason::USER).errorNum, MIGRATE_ERROR_NOTHING);
    RunSlowly();
    EXPECT_EQ(engine->Pause(TaskPauseReason::NETWORK).errorNum, 0);
    EXPECT_EQ(engine->GetInfo(MigrateStage::NONE).taskInfos.at(0).pauseReason, TaskPauseReason::NETWORK);
    std::this_thread::sleep_for(50ms);  // the piece under way
    const int64_t before = engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic, before);
    Run();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(State(), TaskStatus::PAUSED);
    EXPECT_EQ(engine->Resume().errorNum, 0);
    EXPECT_EQ(Outcome(), "a:3/0 ");
    EXPECT_EQ(engine->Resume().errorNum, MIGRATE_ERROR_NOTHING);
}

TEST_F(ServiceEngine, RemovedTasksLeaveNothingBehind)
{
    folders.AddPackage("a", kLarge, R"({"user":1})");
    folders.AddPackage("b", kLarge, R"({"user":2,"bundleName":"com.b"})");
    folders.AddPackage("c", 10, R"({"user":2})");
    RunSlowly();
    EXPECT_EQ(engine->RemovePackage("com.b").errorNum, 0);
    EXPECT_EQ(engine->RemovePackage("com.b").errorNum, MIGRATE_ERROR_NOTHING);
    EXPECT_EQ(engine->RemoveUser(1).errorNum, 0);
    EXPECT_EQ(Outcome(), "c:3/0 ");
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames() == "c "; }));
    EXPECT_EQ(engine->RemoveUser(MIGRATE_ALL_USERS).errorNum, 0);
    EXPECT_EQ(State(), TaskStatus::IDLE);
    EXPECT_EQ(folders.TargetNames(), "c ");
    EXPECT_EQ(engine->StartAll().errorNum, 0);  // "c" is still known as its own
}

TEST_F(ServiceEngine, ThePolicyToStopFailsWhatWaits)
{
    folders.AddUnsupported("a");
    folders.AddPackage("b", 10);
    Run();
    EXPECT_EQ(engine->SetPolicy(MIGRATE_POLICY_STOP).errorNum, 0);
    EXPECT_EQ(MoveAll(), "a:4/24 b:4/28 ");
    EXPECT_TRUE(folders.TargetNames().empty());
}

TEST_F(ServiceEngine, OnePackageAtATime)
{
    folders.AddPackage("a", kLarge, R"({"bundleName":"com.a"})");
    folders.AddPackages("b c", 10);
    folders.AddPackage("r", 10, R"({"reserved":true})");
    Run(kSlow);
    EXPECT_EQ(engine->StartPackage("none").errorNum, MIGRATE_ERROR_NOT_FOUND);
    EXPECT_EQ(engine->StartPackage("r").errorNum, MIGRATE_ERROR_RESERVED);
    EXPECT_EQ(engine->StartPackageAs("b", "../out", {}).errorNum, MIGRATE_ERROR_NAME);
    EXPECT_EQ(engine->StartPackage("com.a").errorNum, 0);
    ASSERT_TRUE(Eventually([this] { return IsCopying(); }));
    EXPECT_EQ(engine->StartPackage("a").errorNum, MIGRATE_ERROR_BUSY);
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_BUSY);
    EXPECT_EQ(engine->StartPackageAs("b", "", {1}).errorNum, 0);
    EXPECT_EQ(engine->StartPackageAs("c", "renamed", {2}).errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(folders.TargetNames(), "a b renamed ");
    EXPECT_EQ(listener.Heard(), "1 3 2 ");  // the higher priority first
}

TEST_F(ServiceEngine, ASuddenEndLeavesNoTraceAndIsNoticedBetweenTheRenameAndItsNote)
{
    folders.AddPackages("a b c", 10);
    Run();
    EXPECT_EQ(MoveAll(), "a:3/0 b:3/0 c:3/0 ");
    EXPECT_EQ(engine->OwnBackups(5), 0);
    engine.reset();
    {
        // As the disk is when the process ends there: for `a`, whose owned copy has been replaced, the rename has
        // happened, for `b` it has not, and for `c` the first of two.
        std::string error;
        const auto store = TaskStore::Open(folders.Target() / ".migrate-state.db", error);
        ASSERT_NE(store, nullptr) << error;
        store->Set(StateValue::STATUS, static_cast<int64_t>(TaskStatus::RUNNING));
        for (const char* name : {"a", "b", "c"}) {
            Task& task = *store->Find(TaskKind::MIGRATE, name);
            task.staged = store->FindPlaced(name)->id;
            task.status = TaskStatus::RUNNING;
            task.subStatus = MIGRATE_SUB_PLACING;
            store->Save(task);
        }
        Placed replaced = *store->FindPlaced("a");
        ++replaced.id.inode;
        store->SavePlaced("a", replaced);
        store->ErasePlaced("b");
    }
    fs::remove_all(folders.Target() / "b");
    fs::rename(folders.Target() / "c", folders.Target() / ".staging-3-old");
    for (const char* name : {".staging-2", ".staging-77", ".staging-of-mine"}) {
        Folders::Write(folders.Target() / name / "data" / "file", "a part");
    }
    // However much it is that is left, it does not delay the start, nor is it in the way.
    Open();
    EXPECT_EQ(folders.TargetNames(), ".staging-4 .staging-5 .staging-of-mine a c ");
    EXPECT_EQ(State(), TaskStatus::RUNNING);
    EXPECT_EQ(Results(), "a:3/0 b:0/0 c:0/0 ");
    engine->Start();
    EXPECT_EQ(Outcome(), "a:3/0 b:3/0 c:3/0 ");
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames() == ".staging-of-mine a b c "; }));
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);
    EXPECT_EQ(engine->StartAll().errorNum, 0);  // all are known as its own
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
    EXPECT_EQ(State(), TaskStatus::IDLE);
    EXPECT_EQ(Results(), "");
    EXPECT_EQ(listener.Heard(), "");

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
    EXPECT_EQ(Outcome(), "a:4/7 ");
    EXPECT_TRUE(folders.TargetNames().empty());

    // Too late for the note that it has been placed: the start after finds that out, and so does the next transaction.
    g_disk = [] {
        g_isStateFull = true;
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
        EXPECT_EQ(Results(), isWrittenLater ? "" : "a:3/0 ");
        g_isStateFull = false;
        EXPECT_EQ(engine->OwnBackups(5), 0);
    }
}

TEST_F(ServiceEngine, AFileSystemThatCanNotExchangeCostsNoPackageEither)
{
    const std::pair<int, const char*> failures[] = {{0, "a:3/0 "}, {1, "a:4/25 "}, {2, "a:4/25 "}};
    folders.AddPackage("a", 10);
    Run();
    EXPECT_EQ(MoveAll(), "a:3/0 ");
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

// The disk has the copy before it has the name, and the name before the task ends; requests are answered meanwhile.
TEST_F(ServiceEngine, APackageIsPlacedWhenTheDiskHasIt)
{
    const std::pair<int, const char*> failures[] = {{0, "a:3/0 "}, {ENOSPC, "a:4/26 "}, {EIO, "a:4/25 "}};
    folders.AddPackage("a", 10);
    for (const auto& [failure, result] : failures) {
        std::string seen;
        g_disk = [&, failure = failure] {
            EXPECT_TRUE(engine->GetStatus(MigrateStage::INSTALL).isTaskExist);
            seen += folders.TargetNames();
            return failure;
        };
        Run(0, true);
        EXPECT_EQ(MoveAll(), result);
        engine.reset();
        EXPECT_EQ(folders.TargetNames(), failure == 0 ? "a " : "");
        EXPECT_EQ(seen, failure == 0 ? ".staging-1 a " : ".staging-1 ");
        fs::remove_all(folders.Target());
        fs::create_directory(folders.Target());
    }
    // What is taken back meanwhile is not placed any more.
    g_disk = [this] {
        EXPECT_EQ(engine->RemoveUser(MIGRATE_ALL_USERS).errorNum, 0);
        return 0;
    };
    Run(0, true);
    engine->StartAll();
    EXPECT_TRUE(Eventually([this] { return State() == TaskStatus::IDLE && folders.TargetNames().empty(); }));
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
