// SPDX-License-Identifier: Apache-2.0
// A service that does not answer, in real time.
#include <chrono>

#include "client_world.h"
#include "native_migrate/migrate_server_kits.h"

using namespace std::chrono_literals;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;
using std::chrono::steady_clock;

namespace {

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddPeerProfile));

TEST(ClientWait, AServiceThatNeverAnswersCostsTheWaitTimeAndServesTheNextRequest)
{
    MigrateServerKits& kits = MigrateServerKits::GetKitsInstance();
    BusinessError error;
    ASSERT_EQ(kits.StartMigrate(error), 0);
    const int32_t pid = error.errorNum;
    const Peer peer;
    ASSERT_EQ(peer.Ask(PEER_PID), pid);
    peer.Ask(PEER_ANSWER, PEER_HANGS);
    const auto start = steady_clock::now();
    EXPECT_EQ(kits.StartMigrate(error), MIGRATE_UNREACHABLE);
    const auto waited = steady_clock::now() - start;
    EXPECT_TRUE(waited >= 7900ms && waited < 10s) << waited / 1ms;

    // Its late answer to the first is nobody's.
    peer.Ask(PEER_ANSWER, 0);
    for (int request = 0; request < 3; ++request) {
        error = BusinessError();
        EXPECT_EQ(kits.StartMigrate(error), 0);
        EXPECT_EQ(error.errorNum, pid);
    }
}

}  // namespace
