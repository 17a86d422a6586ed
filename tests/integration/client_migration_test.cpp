// SPDX-License-Identifier: Apache-2.0
// A migration watched to its end while its service is killed again and again.
#include <atomic>

#include "native_migrate/migrate_server_kits.h"
#include "service_world.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

constexpr int kPackages = 30;
constexpr size_t kPackageBytes = 60000;
constexpr int kBytesPerSecond = 600000;
constexpr int kDeaths = 10;

void AddProfiles(const SamgrWorld& world)
{
    MakePackages(world, kPackages, kPackageBytes, "{}");
    AddServiceProfile(world, kBytesPerSecond);
}

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddProfiles));

struct Watch {
    std::atomic<int> events{0};
    std::atomic<int> midway{0};  // events with a package that is partly copied
    std::atomic<uint32_t> percent{0};

    ProgressCallback Callback()
    {
        return {[this](const MigrateStage&, const EventInfo& event) {
            ++events;
            percent = event.progress.percent;
            for (const TaskProgress& task : event.taskProgresses) {
                const bool isRunning = task.status == static_cast<int32_t>(TaskStatus::RUNNING);
                midway += isRunning && task.progress > 0 && task.progress < 100 ? 1 : 0;
            }
        }};
    }
};

TEST(ClientMigration, SurvivesTenDeathsOfItsServiceAndIsCompleteInTheEnd)
{
    MigrateServerKits& kits = MigrateServerKits::GetKitsInstance();
    RecordingLogSink lines(KOLOG_INFO);
    // The callback stays registered: the program ends while the library is looking for a next instance.
    static Watch dropped;
    static Watch watch;
    ASSERT_EQ(kits.On(dropped.Callback()), 0);
    BusinessError error;
    ASSERT_EQ(kits.StartMigrate(error), 0);
    ASSERT_EQ(error.errorNum, 0) << error.message;
    ASSERT_TRUE(Eventually([&] { return dropped.midway > 0; }));
    ASSERT_EQ(kits.Off(), 0);
    ASSERT_EQ(kits.On(watch.Callback()), 0);

    int droppedEvents = -1;
    uint32_t percent = 0;
    for (int death = 1; death <= kDeaths; ++death) {
        ASSERT_TRUE(Eventually([&] { return watch.midway > 0; })) << death;
        percent = watch.percent;
        ASSERT_LT(percent, 100U) << "the migration was over before death " << death;
        ASSERT_GT(KillService(), 0) << death;
        ASSERT_TRUE(Eventually([&] {
            return CountLines(lines, "MigrateServerKitsImpl::ResumeRegisterCallback result=0") == death;
        })) << death;
        watch.midway = 0;
        // What was under way when it was dropped has arrived by now.
        droppedEvents = death == 1 ? dropped.events.load() : droppedEvents;
    }
    EXPECT_GT(percent, 0U);
    MigrateStatus status;
    EXPECT_TRUE(Eventually([&] {
        return kits.GetMigrateStatus(MigrateStage::NONE, status, error) == 0 &&
               status.status == static_cast<int32_t>(TaskStatus::FINISHED);
    }));
    EXPECT_TRUE(Eventually([&] { return watch.percent == 100; }));
    EXPECT_EQ(dropped.events, droppedEvents);
    EXPECT_TRUE(TargetEqualsSource());
}

}  // namespace
