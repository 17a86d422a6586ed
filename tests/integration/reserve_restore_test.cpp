// SPDX-License-Identifier: Apache-2.0
// Observers of restorations whose service is killed in the middle of each.
#include <map>

#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "native_migrate/task_info.h"
#include "service_world.h"
#include "vexa/base/mutex.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

constexpr int kApps = 20;
constexpr int kDeaths = 10;
constexpr size_t kAppBytes = 60000;
constexpr int kBytesPerSecond = 400000;

void AddProfiles(const SamgrWorld& world)
{
    MakePackages(world, kApps, kAppBytes, R"({"reserved": true})");
    AddServiceProfile(world, kBytesPerSecond);
}

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddProfiles));

class Observer : public ReserveMigrateStatusObserverStub {
public:
    int32_t OnRestoreStatusChanged(const std::string& text) override
    {
        MutexLock lock(mutex_);
        heard_ += text;
        return 0;
    }
    // Whether it has been told that the application has this status.
    bool Heard(const std::string& app, TaskStatus status)
    {
        const std::string name = "\"packageName\":\"" + app + "\"";
        const std::string state = "\"status\":" + std::to_string(static_cast<int32_t>(status));
        MutexLock lock(mutex_);
        for (size_t at = heard_.find(name); at != heard_.npos; at = heard_.find(name, at + 1)) {
            const size_t next = heard_.find("\"packageName\"", at + 1);
            if (heard_.substr(at, next - at).find(state) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    Mutex mutex_;
    std::string heard_ VEXA_GUARDED_BY(mutex_);
};

TEST(ReserveRestore, EveryObserverHearsOfEveryRestorationAcrossTenDeaths)
{
    RecordingLogSink lines(KOLOG_INFO);
    ReserveMigrateKits first;
    ReserveMigrateKits second;
    std::map<std::string, sptr<Observer>> observers;
    std::string reply;
    for (const char* caller : {"beta", "alpha", "gamma"}) {
        ReserveMigrateKits& kits = caller == std::string("gamma") ? second : first;
        observers[caller] = sptr<Observer>(new Observer);
        ASSERT_EQ(kits.RegisterCallback(caller, observers[caller], reply), 0);
    }
    const auto allHear = [&](const std::string& app, const std::vector<TaskStatus>& oneOf) {
        return std::all_of(observers.begin(), observers.end(), [&](const auto& observer) {
            const auto hears = [&](TaskStatus status) { return observer.second->Heard(app, status); };
            return Eventually([&] { return std::any_of(oneOf.begin(), oneOf.end(), hears); });
        });
    };
    const auto nameOf = [](int app) { return "p" + std::to_string(10 + app); };
    for (int app = 0; app < kApps; ++app) {
        ASSERT_EQ((app % 2 == 0 ? first : second).RestoreApp(nameOf(app), "", reply), 0) << app;
    }
    // They are restored one after the other, so the last ones are still to come at every death.
    for (int death = 1; death <= kDeaths; ++death) {
        ASSERT_TRUE(allHear(nameOf(death - 1), {TaskStatus::RUNNING, TaskStatus::FINISHED})) << death;
        ASSERT_FALSE(std::filesystem::exists(TargetDir(ClientWorld::Get()) + "/" + nameOf(kApps - 1))) << death;
        ASSERT_GT(KillService(), 0) << death;
        for (const auto& [caller, observer] : observers) {
            const std::string line = "register caller=" + caller + " callback result=0";
            EXPECT_TRUE(Eventually([&] { return CountLines(lines, line) == death; })) << line << ' ' << death;
        }
    }
    for (int app = 0; app < kApps; ++app) {
        EXPECT_TRUE(allHear(nameOf(app), {TaskStatus::FINISHED})) << app;
    }
    EXPECT_TRUE(TargetEqualsSource());
}

}  // namespace
