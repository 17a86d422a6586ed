// SPDX-License-Identifier: Apache-2.0
// A migration and restorations, watched to their ends while their service is killed again and again.
#include <algorithm>
#include <atomic>

#include "client_world.h"
#include "native_migrate/json_parse.h"
#include "native_migrate/load_sa_service.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/samgr/system_ability_manager_client.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

constexpr int32_t kEnds = 5;  // a service whose program ends after a moment
constexpr int kFirst = 10;    // in the names
constexpr int kApps = 20;     // reserved ones; the other packages are migrated
constexpr int kPackages = 60;
constexpr int kDeaths = 10;
constexpr std::streamoff kPackageBytes = 60000;

std::string NameOf(int index)
{
    return "p" + std::to_string(kFirst + index);
}

// Packages p10, p11, ... of two files each, one of them deeper.
void AddPackages(const std::string& source)
{
    for (int index = 0; index < kPackages; ++index) {
        const std::string folder = source + "/" + NameOf(index);
        std::filesystem::create_directories(folder + "/data/deep");
        std::ofstream(folder + "/manifest.json") << (index < kApps ? R"({"reserved": true})" : "{}");
        for (const char* file : {"/first", "/data/deep/second"}) {
            std::ofstream stream(folder + file);
            while (stream.tellp() < kPackageBytes / 2) {
                stream << NameOf(index) << file << stream.tellp() << "\n";
            }
        }
    }
}

// Ends the service at once, and returns true when the manager runs the next instance.
bool KillService(const ClientWorld& world)
{
    const pid_t killed = world.Service();
    const auto runsNext = [&] { return world.Service() > 0 && world.Service() != killed; };
    return killed > 0 && kill(killed, SIGKILL) == 0 && Eventually(runsNext);
}

std::atomic<int> midway{0};  // events with a package that is partly copied
std::atomic<uint32_t> percent{0};
std::atomic<bool> isFinished{false};
std::atomic<int> loads{0};  // of kEnds, whose end was heard of

void Watch(const MigrateStage& stage, const EventInfo& event)
{
    // The outcome of neither kind of load waits for the callback's own thread, which is the only one.
    if (loads < 2) {
        const auto start = std::chrono::steady_clock::now();
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        loads == 0 ? void(manager->LoadSystemAbility(kEnds, 5)) : void(LoadSaService::GetInstance()->TryLoadSa(kEnds));
        loads += std::chrono::steady_clock::now() - start < std::chrono::seconds(4) ? 1 : 0;
    }
    isFinished = stage == MigrateStage::FINISH;
    percent = event.progress.percent;
    for (const TaskProgress& task : event.taskProgresses) {
        const bool isRunning = task.status == static_cast<int32_t>(TaskStatus::RUNNING);
        midway += isRunning && task.progress > 0 && task.progress < 100 ? 1 : 0;
    }
}

class Observer : public ReserveMigrateStatusObserverStub {
public:
    int32_t OnRestoreStatusChanged(const std::string& text) override
    {
        std::vector<RestoreEventInfo> events;
        EXPECT_EQ(JsonParse::JsonStrToStruct(text, events), JsonError::SUCCESS) << text;
        for (const RestoreEventInfo& event : events) {
            if (event.status == static_cast<int32_t>(TaskStatus::FINISHED)) {
                isRestored.at(std::stoul(event.restoreAppInfo.packageName.substr(1)) - kFirst) = true;
            }
        }
        return 0;
    }
    std::array<std::atomic<bool>, kApps> isRestored{};
};

TEST(ClientMigration, AllThatIsWatchedGoesOnAcrossTenDeathsOfTheService)
{
    ClientWorld world(R"(, "--throttle", "500000")");
    AddPackages(world.Source());
    world.AddProfile(kEnds, "/bin/sleep", R"(, "arguments": ["0.3"])");
    world.StartManager();
    IPCSkeleton::SetMaxWorkThreads(1);
    MigrateServerKits& kits = MigrateServerKits::GetKitsInstance();
    // The callback stays registered: the program ends while the library is looking for a next instance.
    ASSERT_TRUE(Eventually([&] { return kits.On({Watch}) == 0; }));
    ReserveMigrateKits first;
    ReserveMigrateKits second;
    const std::pair<ReserveMigrateKits&, std::string> callers[] = {
        {first, "beta"}, {first, "alpha"}, {second, "gamma"}};
    std::vector<sptr<Observer>> observers;
    std::string reply;
    for (const auto& [client, caller] : callers) {
        observers.emplace_back(new Observer);
        ASSERT_EQ(client.RegisterCallback(caller, observers.back(), reply), 0);
    }
    const auto allHearOf = [&](int app) {
        const auto hears = [app](const sptr<Observer>& observer) {
            return observer->isRestored.at(static_cast<size_t>(app)).load();
        };
        return Eventually([&] { return std::all_of(observers.begin(), observers.end(), hears); });
    };
    BusinessError error;
    ASSERT_EQ(kits.StartMigrate(error), 0);
    ASSERT_EQ(error.errorNum, 0) << error.message;
    for (int app = 0; app < kApps; ++app) {
        ASSERT_EQ((app % 2 == 0 ? first : second).RestoreApp(NameOf(app), "", reply), 0) << app;
    }
    // Packages and applications come one after the other, so the last ones are still to come at every death.
    for (int death = 1; death <= kDeaths; ++death) {
        midway = 0;
        ASSERT_TRUE(Eventually([] { return midway > 0; })) << death;
        ASSERT_TRUE(allHearOf(death - 1)) << death;
        for (const int last : {kApps - 1, kPackages - 1}) {
            ASSERT_FALSE(std::filesystem::exists(world.Target() + "/" + NameOf(last))) << death;
        }
        ASSERT_TRUE(KillService(world)) << death;
    }
    for (int app = 0; app < kApps; ++app) {
        EXPECT_TRUE(allHearOf(app)) << app;
    }
    EXPECT_TRUE(Eventually([] { return isFinished && percent == 100 && loads >= 2; }));
    EXPECT_EQ(
        std::system(("diff -r -x '.migrate-state*' '" + world.Source() + "' '" + world.Target() + "'").c_str()), 0);
    EXPECT_EQ(world.EndManager(SIGTERM), 0);
}

}  // namespace
