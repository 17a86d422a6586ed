// SPDX-License-Identifier: Apache-2.0
// How long the migration client waits for its service, in real time.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "client_world.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"

using namespace std::chrono_literals;
using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;
using std::chrono::steady_clock;

namespace {

// While it is there, the service does not come up.
std::string HoldFile(const SamgrWorld& world)
{
    return world.Folder() + "/hold";
}

void AddHeldProfile(const SamgrWorld& world)
{
    std::ofstream(HoldFile(world)).put('\n');
    world.AddProfile(MIGRATE_SERVICE_ID, "/bin/sh",
        R"(, "arguments": ["-c", "while [ -e \"$$0\" ]; do sleep 0.01; done; exec \"$$1\" 65792", ")" +
            HoldFile(world) + R"(", ")" CLIENT_PEER R"("])");
}

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddHeldProfile));

int32_t StartMigrate(BusinessError& error)
{
    return MigrateServerKits::GetKitsInstance().StartMigrate(error);
}

// Exit status of a child that runs it, and that is killed when that takes long.
template <typename Run>
int StatusOfChild(const Run& run)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(3);
        _exit(run());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// The lock that its parent held for the lookup is nobody's there.
TEST(ClientWait, AChildForkedDuringALookupIsRefusedAtOnce)
{
    RecordingLogSink lines(KOLOG_INFO);
    BusinessError error;
    std::thread looking([&] { EXPECT_EQ(StartMigrate(error), 0); });
    EXPECT_TRUE(Eventually([&] { return CountLines(lines, "GetService recreate service instance") == 1; }));
    EXPECT_EQ(StatusOfChild([&] { return StartMigrate(error) == MIGRATE_UNREACHABLE ? 0 : 1; }), 0);
    std::filesystem::remove(HoldFile(ClientWorld::Get()));
    looking.join();
    EXPECT_GT(error.errorNum, 0);
}

class Observer : public ReserveMigrateStatusObserverStub {
    int32_t OnRestoreStatusChanged(const std::string& /*status*/) override { return 0; }
};

// There is no handler that its end could wait for.
TEST(ClientWait, AChildForkedWhileObserversAreRegisteredAgainEndsItsClientAtOnce)
{
    std::optional<ReserveMigrateKits> kits(std::in_place);
    std::string reply;
    EXPECT_EQ(kits->RegisterCallback("caller", new Observer, reply), 0);
    std::ofstream(HoldFile(ClientWorld::Get())).put('\n');
    const pid_t pid = Peer().Ask(PEER_PID);
    ASSERT_GT(pid, 0);
    RecordingLogSink lines(KOLOG_INFO);
    kill(pid, SIGKILL);
    EXPECT_TRUE(Eventually([&] { return CountLines(lines, "GetService recreate service instance") == 1; }));
    EXPECT_EQ(StatusOfChild([&] { return kits.reset(), 0; }), 0);
    std::filesystem::remove(HoldFile(ClientWorld::Get()));
}

TEST(ClientWait, ASilentServiceCostsTheWaitTimeAndServesTheNextRequest)
{
    const pid_t pid = Peer().Ask(PEER_PID);
    ASSERT_GT(pid, 0);
    BusinessError error;
    ASSERT_TRUE(StopProcess(pid));
    const auto start = steady_clock::now();
    EXPECT_EQ(StartMigrate(error), MIGRATE_UNREACHABLE);
    const auto waited = steady_clock::now() - start;
    EXPECT_TRUE(waited >= 7900ms && waited < 10s) << waited / 1ms;
    // Its late answer is nobody's.
    kill(pid, SIGCONT);
    for (int request = 0; request < 3; ++request) {
        error = BusinessError();
        EXPECT_EQ(StartMigrate(error), 0);
        EXPECT_EQ(error.errorNum, pid);
    }
}

TEST(ClientWait, ADeathInTheMiddleOfARequestEndsItAtOnce)
{
    const pid_t pid = Peer().Ask(PEER_PID);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(StopProcess(pid));
    RecordingLogSink lines(KOLOG_INFO);
    BusinessError error;
    error.message = "untouched";
    std::thread caller([&] { EXPECT_EQ(StartMigrate(error), MIGRATE_UNREACHABLE); });
    EXPECT_TRUE(Eventually([&] { return CountLines(lines, "MigrateServiceProxy::SendRemoteRequest") == 1; }));
    const auto killed = steady_clock::now();
    kill(pid, SIGKILL);
    caller.join();
    EXPECT_LT(steady_clock::now() - killed, 1s);
    EXPECT_EQ(error.message, "untouched");
    // Until the library has been told, within a moment, it knows the dead one only.
    EXPECT_TRUE(Eventually([&] { return StartMigrate(error) == 0; }));
    EXPECT_NE(error.errorNum, pid);
}

}  // namespace
