// SPDX-License-Identifier: Apache-2.0
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>

#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ServiceEngine = EngineTest;

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
    EXPECT_EQ(error.data[0].errorCode, MIGRATE_ERROR_MANIFEST);
    EXPECT_EQ(error.data[0].errorMessage.rfind("bad: ", 0), 0U);
    EXPECT_EQ(error.data[1].errorCode, MIGRATE_ERROR_TARGET);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 b:3/0 bad:4/20 pipe:4/24 taken:4/23 ");
    EXPECT_EQ(State(), TaskStatus::FAILED);
    const MigrationResult result = engine->GetResult();
    EXPECT_EQ(result.succeeded, 2U);
    EXPECT_EQ(result.failed, 3U);
    EXPECT_EQ(
        result.packages[1].bytes, 7000 + static_cast<int64_t>(fs::file_size(folders.Source() / "b" / "manifest.json")));
    EXPECT_GE(result.endTime, result.startTime);
    EXPECT_EQ(folders.TargetNames(), (std::vector<std::string>{"a", "b2", "taken"}));
    EXPECT_EQ(Folders::Read(folders.Target() / "b2" / "data" / "file").size(), 7000U);
    EXPECT_EQ(Folders::Read(folders.Target() / "taken" / "precious"), "mine");
}

TEST_F(ServiceEngine, AnswersWhatIsInTheSource)
{
    folders.AddPackage(
        "a", 1000, R"({"bundleName":"com.a","user":3,"targetUser":100,"modules":[{"type":1,"id":"m"}]})");
    folders.AddPackage("b", 500);
    folders.AddPackage("r", 9, R"({"reserved":true,"modules":[{"type":2,"id":"r"}]})");
    Run();
    std::vector<PakMigrateInfo> packages;
    EXPECT_EQ(engine->GetPackages(packages).errorNum, 0);
    ASSERT_EQ(packages.size(), 3U);
    std::vector<std::string> names;
    EXPECT_EQ(engine->GetBundleNames(names).errorNum, 0);
    EXPECT_EQ(names, (std::vector<std::string>{"com.a", "b"}));
    int64_t bytes = 0;
    EXPECT_EQ(engine->GetDataSize(bytes).errorNum, 0);
    const auto manifest = static_cast<int64_t>(fs::file_size(folders.Source() / "a" / "manifest.json"));
    EXPECT_EQ(bytes, 1500 + manifest);

    BusinessError error;
    EXPECT_TRUE(engine->SetPreset(R"({"exclude":["b"],"users":[{"sourceUser":3,"targetUser":7}]})", error));
    EXPECT_EQ(engine->GetDataSize(bytes).errorNum, 0);
    EXPECT_EQ(bytes, 1000 + manifest);
    std::vector<MigrationUser> users;
    EXPECT_EQ(engine->GetUsers(users).errorNum, 0);
    ASSERT_EQ(users.size(), 2U);
    EXPECT_EQ(users[0].targetUser, 7);
    for (const char* bad : {"[]", "{", R"({"exclude":"b"})", "7"}) {
        EXPECT_FALSE(engine->SetPreset(bad, error)) << bad;
    }

    std::vector<ModuleMigrationPolicy> policies;
    EXPECT_EQ(engine->GetModulePolicies(false, {}, policies).errorNum, 0);
    ASSERT_EQ(policies.size(), 2U);
    EXPECT_EQ(policies[0].targetModuleInfos.size(), 1U);
    EXPECT_TRUE(policies[1].targetModuleInfos.empty());  // set aside
    EXPECT_EQ(engine->GetModulePolicies(true, {{1, "m"}, {9, "?"}}, policies).errorNum, 0);
    EXPECT_TRUE(policies[2].targetModuleInfos.empty());  // not there yet

    EXPECT_EQ(engine->StartAll().errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 ");
    policies.clear();
    EXPECT_EQ(engine->GetModulePolicies(true, {{1, "m"}, {9, "?"}}, policies).errorNum, 0);
    EXPECT_EQ(policies[0].targetModuleInfos.size(), 1U);
    EXPECT_TRUE(policies[1].targetModuleInfos.empty());

    fs::rename(folders.Source(), folders.Root() / "away");
    EXPECT_EQ(engine->GetPackages(packages).errorNum, MIGRATE_ERROR_SOURCE);
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_SOURCE);
}

TEST_F(ServiceEngine, ASecondRunReplacesWhatTheFirstHasPlacedAndNothingElse)
{
    folders.AddPackage("a", 100);
    folders.AddPackage("b", 100);
    Run();
    engine->StartAll();
    ASSERT_TRUE(Ends());
    Folders::Write(folders.Source() / "a" / "data" / "file", "new");
    fs::remove_all(folders.Target() / "b");
    Folders::Write(folders.Target() / "b" / "precious", "mine");
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_SOME_PACKAGES);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 b:4/23 ");
    EXPECT_EQ(Folders::Read(folders.Target() / "a" / "data" / "file"), "new");
    EXPECT_EQ(folders.TargetNames(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(ServiceEngine, ProgressIsThatOfTheBytesAndComesAtMostTenTimesASecond)
{
    folders.AddPackage("a", kLarge);
    folders.AddPackage("b", kLarge);
    Run(kSlow);
    const auto start = steady_clock::now();
    engine->StartAll();
    EXPECT_EQ(engine->StartAll().errorNum, MIGRATE_ERROR_BUSY);
    ASSERT_TRUE(Eventually([this] { return engine->GetInfo(MigrateStage::NONE).migrateProgress.percent >= 20; }));
    const MigrateInfo info = engine->GetInfo(MigrateStage::DOWNLOAD);
    ASSERT_EQ(info.taskInfos.size(), 1U);
    EXPECT_EQ(info.taskInfos[0].status, TaskStatus::RUNNING);
    EXPECT_EQ(info.taskInfos[0].source, "a");
    const auto total = static_cast<double>(2 * kLarge);
    const auto left = static_cast<double>(info.migrateProgress.requiredTraffic);
    EXPECT_NEAR(info.migrateProgress.percent, 100.0 * (1 - left / total), 1.0);
    EXPECT_GE(info.migrateProgress.remainingTime, 1U);
    EXPECT_LE(info.migrateProgress.remainingTime, 4U);
    ASSERT_TRUE(Ends());
    const std::chrono::duration<double> took = steady_clock::now() - start;
    EXPECT_GE(took.count(), 0.9);  // the throttle held
    const MigrateInfo end = engine->GetInfo(MigrateStage::FINISH);
    EXPECT_EQ(end.taskInfos.size(), 2U);
    EXPECT_EQ(end.migrateProgress.percent, 100U);
    EXPECT_EQ(end.migrateProgress.requiredTraffic, 0);

    std::map<uint32_t, std::vector<TaskProgress>> events;
    for (const TaskProgress& event : listener.Tasks()) {
        events[event.id].push_back(event);
    }
    ASSERT_EQ(events.size(), 2U);
    for (const auto& [id, list] : events) {
        // Waiting, copying, placing and ended, and what lies between.
        EXPECT_LE(list.size(), 5 + static_cast<size_t>(took.count() * 10)) << id;
        EXPECT_GE(list.size(), 6U) << id;
        EXPECT_EQ(list.front().status, static_cast<int32_t>(TaskStatus::IDLE));
        EXPECT_EQ(list.back().status, static_cast<int32_t>(TaskStatus::FINISHED));
        EXPECT_EQ(list.back().progress, 100);
        for (size_t i = 1; i < list.size(); ++i) {
            EXPECT_GE(list[i].progress, list[i - 1].progress);
        }
    }
}

TEST_F(ServiceEngine, PausesAndGoesOnAlsoInTheNextLife)
{
    folders.AddPackage("a", kLarge);
    Run(kSlow);
    EXPECT_EQ(engine->Pause(TaskPauseReason::USER).errorNum, MIGRATE_ERROR_NOTHING);
    engine->StartAll();
    ASSERT_TRUE(Eventually([this] { return IsCopying(); }));
    EXPECT_EQ(engine->Pause(TaskPauseReason::NETWORK).errorNum, 0);
    const MigrateInfo info = engine->GetInfo(MigrateStage::NONE);
    EXPECT_EQ(info.migrateProgress.suspendReason, static_cast<int32_t>(TaskPauseReason::NETWORK));
    EXPECT_EQ(info.taskInfos[0].status, TaskStatus::PAUSED);
    EXPECT_EQ(info.taskInfos[0].pauseReason, TaskPauseReason::NETWORK);
    std::this_thread::sleep_for(50ms);  // the piece under way
    const int64_t before = engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(engine->GetInfo(MigrateStage::NONE).migrateProgress.requiredTraffic, before);
    Run();
    EXPECT_EQ(State(), TaskStatus::PAUSED);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(State(), TaskStatus::PAUSED);
    EXPECT_EQ(engine->Resume().errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 ");
    EXPECT_EQ(engine->Resume().errorNum, MIGRATE_ERROR_NOTHING);
}

TEST_F(ServiceEngine, RemovedTasksLeaveNothingBehind)
{
    folders.AddPackage("a", kLarge, R"({"user":1})");
    folders.AddPackage("b", kLarge, R"({"user":2,"bundleName":"com.b"})");
    folders.AddPackage("c", 10, R"({"user":2})");
    Run(kSlow);
    engine->StartAll();
    ASSERT_TRUE(Eventually([this] { return IsCopying(); }));
    EXPECT_EQ(engine->RemovePackage("com.b").errorNum, 0);
    EXPECT_EQ(engine->RemovePackage("com.b").errorNum, MIGRATE_ERROR_NOTHING);
    EXPECT_EQ(engine->RemoveUser(1).errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "c:3/0 ");
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames() == std::vector<std::string>{"c"}; }));
    EXPECT_EQ(engine->RemoveUser(MIGRATE_ALL_USERS).errorNum, 0);
    EXPECT_EQ(State(), TaskStatus::IDLE);
    EXPECT_EQ(folders.TargetNames(), std::vector<std::string>{"c"});
    EXPECT_EQ(engine->StartAll().errorNum, 0);  // "c" is still known as its own
}

TEST_F(ServiceEngine, ThePolicyToStopFailsWhatWaits)
{
    folders.AddUnsupported("a");
    folders.AddPackage("b", 10);
    Run();
    EXPECT_EQ(engine->SetPolicy(MIGRATE_POLICY_STOP).errorNum, 0);
    EXPECT_EQ(engine->StartAll().errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:4/24 b:4/28 ");
    EXPECT_TRUE(folders.TargetNames().empty());
}

TEST_F(ServiceEngine, OnePackageAtATime)
{
    folders.AddPackage("a", kLarge, R"({"bundleName":"com.a"})");
    folders.AddPackage("b", 10);
    folders.AddPackage("c", 10);
    folders.AddPackage("r", 10, R"({"reserved":true})");
    Run(kSlow);
    EXPECT_EQ(engine->StartPackage("none", "", 0).errorNum, MIGRATE_ERROR_NOT_FOUND);
    EXPECT_EQ(engine->StartPackage("r", "", 0).errorNum, MIGRATE_ERROR_RESERVED);
    EXPECT_EQ(engine->StartPackage("b", "../out", 0).errorNum, MIGRATE_ERROR_NAME);
    ReserveMigrationStatus status;
    EXPECT_EQ(engine->GetPackageStatus("none", status).errorNum, MIGRATE_ERROR_NOT_FOUND);
    EXPECT_EQ(engine->GetPackageStatus("b", status).errorNum, 0);
    EXPECT_EQ(status.status, static_cast<int32_t>(TaskStatus::IDLE));

    EXPECT_EQ(engine->StartPackage("com.a", "", 0).errorNum, 0);
    ASSERT_TRUE(Eventually([this] { return IsCopying(); }));
    EXPECT_EQ(engine->StartPackage("a", "", 0).errorNum, MIGRATE_ERROR_BUSY);
    EXPECT_EQ(engine->StartPackage("b", "", 1).errorNum, 0);
    EXPECT_EQ(engine->StartPackage("c", "renamed", 2).errorNum, 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(folders.TargetNames(), (std::vector<std::string>{"a", "b", "renamed"}));
    // The higher priority ended first.
    std::vector<uint32_t> order;
    for (const TaskProgress& event : listener.Tasks()) {
        if (event.status == static_cast<int32_t>(TaskStatus::FINISHED)) {
            order.push_back(event.id);
        }
    }
    EXPECT_EQ(order, (std::vector<uint32_t>{1, 3, 2}));
}

TEST_F(ServiceEngine, WhatWasUnderWayGoesOnAfterASuddenEnd)
{
    folders.AddPackage("a", 1000);
    folders.AddPackage("b", kLarge);
    folders.AddPackage("c", 1000);
    const pid_t child = fork();
    if (child == 0) {
        Run(kSlow);
        engine->StartAll();
        std::this_thread::sleep_for(20s);
        _exit(1);
    }
    // In the middle of the second package.
    const auto isStaged = [this] {
        const auto names = folders.TargetNames();
        return names.size() == 2 && names[0].rfind(".staging-", 0) == 0 && names[1] == "a" &&
               fs::exists(folders.Target() / names[0] / "data" / "file");
    };
    EXPECT_TRUE(Eventually(isStaged));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    fs::create_directory(folders.Target() / ".staging-of-mine");
    Open();
    EXPECT_EQ(folders.TargetNames(), (std::vector<std::string>{".staging-of-mine", "a"}));
    fs::remove(folders.Target() / ".staging-of-mine");
    EXPECT_EQ(State(), TaskStatus::RUNNING);
    engine->Start();
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 b:3/0 c:3/0 ");
    EXPECT_EQ(folders.TargetNames(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(fs::file_size(folders.Target() / "b" / "data" / "file"), kLarge);
}

TEST_F(ServiceEngine, AnEndBetweenTheRenameAndItsNoteIsNoticed)
{
    folders.AddPackage("a", 10);
    folders.AddPackage("b", 10);
    Run();
    engine->StartAll();
    ASSERT_TRUE(Ends());
    engine.reset();
    {
        // As the disk is when the process ends there: for `a` the rename has happened, for `b` it has not.
        std::string error;
        const auto store = TaskStore::Open(folders.Target() / ".migrate-state.db", error);
        ASSERT_NE(store, nullptr) << error;
        store->Set(StateValue::STATUS, static_cast<int64_t>(TaskStatus::RUNNING));
        for (const char* name : {"a", "b"}) {
            Task& task = *store->Find(TaskKind::MIGRATE, name);
            task.staged = store->FindPlaced(name)->id;
            task.status = TaskStatus::RUNNING;
            task.subStatus = MIGRATE_SUB_PLACING;
            store->Save(task);
            store->ErasePlaced(name);
        }
    }
    fs::remove_all(folders.Target() / "b");
    Open();
    EXPECT_EQ(Results(), "a:3/0 b:0/0 ");
    engine->Start();
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Results(), "a:3/0 b:3/0 ");
    EXPECT_EQ(engine->StartAll().errorNum, 0);  // both are known as its own
}

TEST_F(ServiceEngine, BackupFilesBelongToTheFirstWhoAsks)
{
    folders.AddPackage("a", 10);
    folders.AddPackage("b", 10);
    Run();
    EXPECT_EQ(engine->OwnBackups(5), MIGRATE_ERROR_NOTHING);
    engine->StartAll();
    ASSERT_TRUE(Ends());
    EXPECT_EQ(engine->OwnBackups(5), 0);
    EXPECT_EQ(engine->OwnBackups(5), 0);
    Run();
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);
    engine->StartAll();
    ASSERT_TRUE(Ends());
    EXPECT_EQ(engine->OwnBackups(6), MIGRATE_ERROR_OWNER);  // the new copies are still his
    fs::rename(folders.Target() / "b", folders.Root() / "away");
    EXPECT_EQ(engine->OwnBackups(5), MIGRATE_ERROR_TARGET);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
