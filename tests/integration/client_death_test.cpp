// SPDX-License-Identifier: Apache-2.0
// The migration client while its service is killed, with a service that does as it is told.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "client_world.h"
#include "native_migrate/migrate_server_kits.h"

using namespace std::chrono_literals;
using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;
using std::chrono::steady_clock;
using testing::ElementsAreArray;

namespace {

constexpr char kImpl[] = "migrate_server_kits_impl.cpp";
constexpr char kProxy[] = "migrate_service_proxy.cpp";
constexpr char kNothingToResume[] = "progressCallback is null, ignore ResumeRegisterCallback";
constexpr char kResumed[] = "MigrateServerKitsImpl::ResumeRegisterCallback result=0";

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddPeerProfile));

MigrateServerKits& Kits()
{
    return MigrateServerKits::GetKitsInstance();
}

// The process that has answered; -1 on failure.
pid_t StartedBy()
{
    BusinessError error;
    return Kits().StartMigrate(error) == 0 ? error.errorNum : -1;
}

ProgressCallback CountInto(std::atomic<int>& count)
{
    return {[&count](const MigrateStage&, const EventInfo&) { ++count; }};
}

class ClientDeath : public testing::Test {
protected:
    // The library has dealt with the death when this returns.
    void Kill(pid_t pid, const char* lastLine)
    {
        lines_.Clear();
        kill(pid, SIGKILL);
        ASSERT_TRUE(Eventually([&] { return CountLines(lines_, lastLine) == 1; }));
    }
    void TearDown() override
    {
        Kits().Off();
        Peer().Ask(PEER_ANSWER, 0);
    }

    RecordingLogSink lines_{KOLOG_INFO};
};

TEST_F(ClientDeath, ADeathInTheMiddleOfARequestEndsItAtOnce)
{
    const pid_t first = StartedBy();
    ASSERT_GT(first, 0);
    const Peer peer;
    peer.Ask(PEER_ANSWER, PEER_HANGS);
    const int32_t before = peer.Ask(PEER_ENTERED);
    BusinessError error;
    error.message = "untouched";
    int32_t result = 0;
    std::thread caller([&] { result = Kits().StartMigrate(error); });
    ASSERT_TRUE(Eventually([&] { return peer.Ask(PEER_ENTERED) == before + 1; }));
    const auto killed = steady_clock::now();
    Kill(first, kNothingToResume);
    caller.join();
    EXPECT_LT(steady_clock::now() - killed, 1s);
    EXPECT_EQ(result, MIGRATE_UNREACHABLE);
    EXPECT_EQ(error.message, "untouched");
    const pid_t second = StartedBy();
    EXPECT_TRUE(second > 0 && second != first) << second;
}

TEST_F(ClientDeath, TransportResultsReachTheCallerWithTheirLines)
{
    struct Case {
        int32_t transport;
        int32_t result;
        bool isRead;
    };
    const Case cases[] = {{0, 0, true}, {1, 104, false}, {1999, 104, false}, {2000, 0, true}, {2001, 1, false},
        {2003, 3, false}, {-1, 104, false}};
    const pid_t pid = StartedBy();
    ASSERT_GT(pid, 0);
    const Peer peer;
    for (const Case& way : cases) {
        SCOPED_TRACE(way.transport);
        peer.Ask(PEER_ANSWER, way.transport);
        lines_.Clear();
        BusinessError error;
        EXPECT_EQ(Kits().StartMigrate(error), way.result);
        EXPECT_EQ(error.errorNum, way.isRead ? pid : 0);
        std::vector<RecordedMessage> expected{{4, kImpl, "MigrateServerKitsImpl::startMigrate start"},
            {4, kImpl, "GetService entry"}, {4, kProxy, "MigrateServiceProxy::SendRemoteRequest"},
            {4, kProxy, "MigrateServiceProxy::GetResult is " + std::to_string(way.transport)}};
        if (way.result != 0) {
            expected.push_back({6, kProxy, "Transact error"});
            expected.push_back(
                {6, kImpl, "MigrateServerKitsImpl::StartMigrate result is " + std::to_string(way.result)});
        }
        EXPECT_THAT(KitsLines(lines_), ElementsAreArray(expected));
    }
}

// Its notice comes right after the library's own, on the same thread.
class CallAtDeath : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override { next = StartedBy(); }
    std::atomic<pid_t> next{0};
};

TEST_F(ClientDeath, ARequestInTheInstantOfADeathReachesTheNextInstance)
{
    pid_t pid = StartedBy();
    std::set<pid_t> instances{pid};
    for (int round = 0; round < INSTANT_DEATHS; ++round) {
        const Peer peer;
        const sptr<CallAtDeath> watch(new CallAtDeath);
        ASSERT_TRUE(peer.Object() != nullptr && peer.Object()->AddDeathRecipient(watch)) << round;
        lines_.Clear();
        kill(pid, SIGKILL);
        ASSERT_TRUE(Eventually([&] { return watch->next != 0; })) << round;
        pid = watch->next;
        ASSERT_GT(pid, 0) << round;
        ASSERT_TRUE(instances.insert(pid).second) << round;
    }
}

TEST_F(ClientDeath, TheSameCallbackIsRegisteredAfterEveryDeath)
{
    const std::vector<RecordedMessage> expected{{4, kImpl, "migrate_server is dead"}, {4, kImpl, "GetService entry"},
        {4, kImpl, "GetService recreate service instance"},
        {4, kImpl, "MigrateServerKitsImpl::AddDeathRecipient ret=true"}, {4, kImpl, "ResumeRegisterCallback"},
        {4, kProxy, "MigrateServiceProxy::SendRemoteRequest"}, {4, kProxy, "MigrateServiceProxy::GetResult is 0"},
        {4, kImpl, kResumed}};
    std::atomic<int> dropped{0};
    std::atomic<int> events{0};
    ASSERT_EQ(Kits().On(CountInto(dropped)), 0);
    ASSERT_EQ(Kits().On(CountInto(events)), 0);
    const sptr<IRemoteObject> callback = Peer().Callback();
    ASSERT_NE(callback, nullptr);
    EXPECT_FALSE(callback->IsProxyObject());
    for (int round = 0; round < 10; ++round) {
        Kill(Peer().Ask(PEER_PID), kResumed);
        EXPECT_THAT(KitsLines(lines_), ElementsAreArray(expected));
        const Peer peer;
        EXPECT_EQ(peer.Ask(PEER_REGISTRATIONS), 1);
        EXPECT_TRUE(peer.Callback() == callback);
        EXPECT_GT(StartedBy(), 0);
        EXPECT_EQ(events, round + 1);
    }
    EXPECT_EQ(Kits().Off(), 0);
    EXPECT_EQ(Peer().Callback(), nullptr);
    Kill(Peer().Ask(PEER_PID), kNothingToResume);
    EXPECT_GT(StartedBy(), 0);
    EXPECT_EQ(Peer().Ask(PEER_REGISTRATIONS), 0);
    EXPECT_EQ(events, 10);
    EXPECT_EQ(dropped, 0);
}

TEST_F(ClientDeath, OnAndOffWhileTheServiceComesBackAreTheLastWord)
{
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        std::atomic<int> earlier{0};
        std::atomic<int> later{0};
        ASSERT_EQ(Kits().On(CountInto(earlier)), 0);
        const Peer before;
        lines_.Clear();
        kill(before.Ask(PEER_PID), SIGKILL);
        ASSERT_TRUE(Eventually([&] { return CountLines(lines_, "GetService recreate service instance") == 1; }));
        const bool isOn = round % 2 == 0;
        ASSERT_EQ(isOn ? Kits().On(CountInto(later)) : Kits().Off(), 0);
        // Its notice comes when the library's handler has ended.
        const sptr<CallAtDeath> watch(new CallAtDeath);
        ASSERT_TRUE(before.Object()->AddDeathRecipient(watch));
        ASSERT_TRUE(Eventually([&] { return watch->next > 0; }));
        ASSERT_EQ(Peer().Ask(PEER_PID), watch->next);
        ASSERT_EQ(Peer().Callback() != nullptr, isOn);
        ASSERT_EQ(earlier, 0);
        ASSERT_EQ(later, isOn ? 1 : 0);
        ASSERT_EQ(Kits().Off(), 0);
    }
}

TEST_F(ClientDeath, OnAndOffFromFourThreadsDuringDeaths)
{
    std::atomic<bool> isOver{false};
    std::atomic<int> events{0};
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&, index] {
            for (int turn = index; !isOver; ++turn) {
                const int32_t result = turn % 2 == 0 ? Kits().On(CountInto(events)) : Kits().Off();
                EXPECT_TRUE(result == 0 || result == MIGRATE_UNREACHABLE) << result;
                ++calls;
            }
        });
    }
    for (int death = 0; death < 10; ++death) {
        pid_t pid = -1;
        EXPECT_TRUE(Eventually([&] { return (pid = Peer().Ask(PEER_PID)) > 0; }));
        const int before = calls;
        EXPECT_TRUE(Eventually([&] { return calls > before + 20; }));
        kill(pid, SIGKILL);
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(Eventually([] { return StartedBy() > 0; }));

    std::atomic<int> last{0};
    ASSERT_EQ(Kits().On(CountInto(last)), 0);
    events = 0;
    EXPECT_GT(StartedBy(), 0);
    EXPECT_EQ(last, 1);
    EXPECT_EQ(events, 0);
}

}  // namespace
