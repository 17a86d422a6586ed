// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {
namespace {

using namespace std::chrono_literals;

using ServiceEngine = EngineTest;

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
    const TaskInfo paused = engine->GetInfo(MigrateStage::NONE).taskInfos.at(1);
    EXPECT_TRUE(paused.pauseReason == TaskPauseReason::NETWORK && paused.subStatus == MIGRATE_SUB_COPYING);
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
    EXPECT_NEAR(static_cast<double>(progress().remainingTime), 6.5, 2.5);
    // What has been told is known to the next life, however this one ends.
    const uint32_t told = progress().percent;
    Open();
    EXPECT_GE(progress().percent, told);
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
            MigrateStage stage = MigrateStage::NONE;
            MigrateProgress progress;
            engine->GetProgress(stage, progress);
            const std::string names = folders.TargetNames() + std::to_string(std::distance(begin(marks), end(marks))) +
                                      (stage == MigrateStage::INSTALL ? "n " : " ");
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
