// SPDX-License-Identifier: Apache-2.0
// Reserve clients that come and go while their service is killed.
#include <atomic>
#include <thread>

#include "client_world.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddPeerProfile));

class Observer : public ReserveMigrateStatusObserverStub {
public:
    static inline std::atomic<int> alive{0};
    Observer() { ++alive; }
    ~Observer() override { --alive; }
    int32_t OnRestoreStatusChanged(const std::string&) override { return 0; }
};

TEST(ReserveDeath, AThousandClientsEndWhileTheirServiceDies)
{
    constexpr int kThreads = 4;
    constexpr int kClients = 1000;
    constexpr int kDeaths = 15;
    std::atomic<int> ended{0};
    std::atomic<int> registered{0};
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&] {
            for (int client = 0; client < kClients / kThreads; ++client) {
                ReserveMigrateKits kits;
                std::string reply;
                const int32_t result = kits.RegisterCallback("caller", new Observer, reply);
                EXPECT_TRUE(result == 0 || result == MIGRATE_UNREACHABLE) << result;
                registered += result == 0 ? 1 : 0;
                ++ended;
            }
        });
    }
    pid_t pid = -1;
    const auto isServed = [&] { return (pid = Peer().Ask(PEER_PID)) > 0; };
    for (int death = 1; death <= kDeaths; ++death) {
        EXPECT_TRUE(Eventually([&] { return ended >= death * kClients / (kDeaths + 1); })) << death;
        if (Eventually([&] { return isServed() || ended == kClients; }) && pid > 0) {
            kill(pid, SIGKILL);
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(registered, kClients / 2);

    // The service held what the clients left with it.
    ReserveMigrateKits last;
    std::string reply;
    EXPECT_TRUE(Eventually([&] { return last.RegisterCallback("last", new Observer, reply) == 0 && isServed(); }));
    const pid_t killed = pid;
    kill(killed, SIGKILL);
    EXPECT_TRUE(Eventually([&] { return Observer::alive == 1; })) << Observer::alive;
    EXPECT_TRUE(Eventually([&] { return isServed() && pid != killed; }));
}

}  // namespace
