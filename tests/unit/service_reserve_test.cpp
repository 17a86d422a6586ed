// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {
namespace {

class ServiceReserve : public EngineTest {
protected:
    void SetUp() override
    {
        folders.AddPackage(
            "r1", 10, R"({"reserved":true,"bundleName":"com.r1","restoreScene":"day","versionName":"2"})");
        folders.AddPackage("r2", 10, R"({"reserved":true,"restoreScene":"night"})");
        folders.AddPackage("r3", kLarge, R"({"reserved":true})");
        folders.AddPackage("plain", 10);
    }
    // Of every reserved application, in order.
    std::string All(const std::string& scene = "") const
    {
        std::vector<RestoreEventInfo> events;
        EXPECT_EQ(engine->GetRestoreStatus("", scene, events).errorNum, 0);
        return Statuses(events);
    }
    bool Becomes(const std::string& statuses) const
    {
        return Eventually([&] { return All() == statuses; });
    }
};

TEST_F(ServiceReserve, IsRestoredAndClearedAndRemembered)
{
    Run();
    EXPECT_EQ(engine->Restore("plain", "").errorNum, MIGRATE_ERROR_NOT_FOUND);
    EXPECT_EQ(engine->ClearReserved("com.r1", "").errorNum, MIGRATE_ERROR_NOTHING);
    EXPECT_TRUE(engine->CheckRestore("com.r1").canRestore);
    EXPECT_EQ(engine->Restore("com.r1", "evening").errorNum, 0);
    ASSERT_TRUE(Becomes("r1:3 r2:0 r3:0 "));
    EXPECT_EQ(listener.Heard(), "r1:0 r1:1 r1:1 r1:3 ");
    EXPECT_EQ(folders.TargetNames(), "r1 ");
    EXPECT_EQ(State(), TaskStatus::IDLE);  // the migration is another matter

    Run();
    EXPECT_EQ(All(), "r1:3 r2:0 r3:0 ");
    EXPECT_EQ(All("evening"), "r1:3 ");
    EXPECT_EQ(engine->ClearReserved("r1", "day").errorNum, MIGRATE_ERROR_NOTHING);
    EXPECT_EQ(engine->ClearReserved("r1", "evening").errorNum, 0);
    EXPECT_EQ(All(), "r1:0 r2:0 r3:0 ");
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames().empty(); }));

    Folders::Write(folders.Target() / "r2" / "precious", "mine");
    EXPECT_FALSE(engine->CheckRestore("r2").canRestore);
    EXPECT_EQ(engine->Restore("r2", "").errorNum, MIGRATE_ERROR_TARGET);
    EXPECT_EQ(engine->ClearAllReserved("").errorNum, 0);
    EXPECT_EQ(FileText(folders.Target() / "r2" / "precious"), "mine");
}

TEST_F(ServiceReserve, GoesInTheOrderOfPrioritiesWhichLast)
{
    Run(kSlow);
    EXPECT_EQ(engine->AdjustPriority("r2", 7).errorNum, 0);
    EXPECT_EQ(engine->AdjustPriority("none", 7).errorNum, MIGRATE_ERROR_NOT_FOUND);
    Run(kSlow);
    EXPECT_EQ(All(), "r2:0 r1:0 r3:0 ");
    EXPECT_EQ(engine->Restore("r3", "").errorNum, 0);
    ASSERT_TRUE(Becomes("r2:0 r1:0 r3:1 "));
    EXPECT_EQ(engine->Restore("r3", "").errorNum, MIGRATE_ERROR_BUSY);
    EXPECT_FALSE(engine->CheckRestore("r3").canRestore);
    engine->Restore("r1", "");
    engine->Restore("r2", "");
    engine->AdjustPriority("r1", 9);  // while it waits
    ASSERT_TRUE(Becomes("r1:3 r2:3 r3:3 "));
    const std::string events = listener.Heard();
    EXPECT_LT(events.find("r1:3"), events.find("r2:3"));
    EXPECT_EQ(engine->ClearAllReserved("night").errorNum, 0);
    EXPECT_EQ(All(), "r1:3 r2:0 r3:3 ");
}

TEST_F(ServiceReserve, ARestorationUnderWayIsClearedOrTakenUpAgain)
{
    Run(kSlow);
    engine->Restore("r3", "");
    ASSERT_TRUE(Becomes("r1:0 r2:0 r3:1 "));
    EXPECT_EQ(engine->ClearReserved("r3", "").errorNum, 0);
    EXPECT_EQ(All(), "r1:0 r2:0 r3:0 ");
    EXPECT_TRUE(Eventually([this] { return folders.TargetNames().empty(); }));
    engine->Restore("r3", "");
    ASSERT_TRUE(Becomes("r1:0 r2:0 r3:1 "));
    Run();
    // The migration leaves them alone, and works beside them.
    EXPECT_EQ(MoveAll(), "plain:3/0 ");
    ASSERT_TRUE(Becomes("r1:0 r2:0 r3:3 "));
    EXPECT_EQ(folders.TargetNames(), "plain r3 ");
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
