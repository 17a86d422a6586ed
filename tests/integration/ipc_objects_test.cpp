// SPDX-License-Identifier: Apache-2.0
// Objects between real processes: memory, refusals, death. Whose they are and how long they live, the simulation shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "object_transfer.h"
#include "remote_proxy.h"
#include "runtime_paths.h"
#include "support/peer_fixture.h"

namespace VEXA::test {
namespace {

using Clock = std::chrono::steady_clock;

class IpcObjects : public PeerTest {};

constexpr int64_t kSlackBytes = int64_t{SLACK_MEBIBYTES} << 20;

// It has connections to accept and grants to read by which the calls are rightful, in an order of its own.
TEST_F(IpcObjects, AnOwnerThatWasStoppedTakesEveryCallOfANewHolder)
{
    ChildProcess ownerProcess;
    ChildProcess giverProcess;
    sptr<IRemoteObject> object = Start("owner", ownerProcess);
    const sptr<IRemoteObject> giver = Start("giver", giverProcess);
    ASSERT_EQ(Call(object, ADD_ONE).Int(1).Answer(), 2);
    const ipc::EndpointId owner = static_cast<ipc::RemoteProxy&>(*object).Owner()->Id();
    object = nullptr;
    ASSERT_TRUE(ownerProcess.Stop());
    std::vector<ipc::UniqueFd> others;
    for (int i = 0; i < 3; ++i) {
        others.push_back(ipc::ConnectTo(ipc::EndpointPath(owner)));
    }
    ASSERT_EQ(Call(giver, FETCH_KEPT).Text("owner").Send(), 0);
    object = Call(giver, GIVE).AnswerObject();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(Call(object, NOTE).Int(42).OneWay().Send(), 0);
    int32_t answer = 0;
    std::thread calling([&] { answer = Call(object, ADD_ONE).Int(1).Answer(); });
    ownerProcess.Signal(SIGCONT);
    calling.join();
    EXPECT_EQ(answer, 2);
    EXPECT_TRUE(Eventually([&] { return Call(object, NOTES).Answer() == 1; }, std::chrono::seconds(3)));
}

TEST_F(IpcObjects, PassesLeaveNothingBehind)
{
    ChildProcess process;
    const sptr<IRemoteObject> node = Start("node", process);
    const sptr<IRemoteObject> mine(new TestObject);
    const auto passes = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(Call(node, KEEP).Object(mine).Send(), 0);
            ASSERT_EQ(Call(node, GIVE).AnswerObject(), mine);
            ASSERT_EQ(Call(hub_, KEEP).Object(Call(node, MAKE_NEW).AnswerObject()).Send(), 0);
        }
    };
    passes(2000);
    const int64_t nodeBefore = ResidentBytes(process.Pid());
    const int64_t hubBefore = ResidentBytes(hubProcess_.Pid());
    const int64_t ownBefore = ResidentBytes(getpid());
    passes(25'000);  // four passes of an object each
    EXPECT_LT(ResidentBytes(process.Pid()), nodeBefore + kSlackBytes);
    EXPECT_LT(ResidentBytes(hubProcess_.Pid()), hubBefore + kSlackBytes);
    EXPECT_LT(ResidentBytes(getpid()), ownBefore + kSlackBytes);
}

TEST_F(IpcObjects, GuessedNumbersAreRefused)
{
    ChildProcess process;
    const sptr<IRemoteObject> node = Start("node", process);
    ASSERT_EQ(Call(node, KEEP).Object(Call(hub_, MAKE_NEW).AnswerObject()).Send(), 0);
    ASSERT_TRUE(TableSettlesAt(hub_, 1)) << "the hub has an object out, with another process";
    const sptr<ipc::Peer> hub = ipc::IpcProcess::Get().ContextPeer();
    for (ipc::ObjectId guess = 1; guess < 50; ++guess) {
        // What this process has given back, it may call until the hub hears of it.
        EXPECT_TRUE(Eventually([&] { return Call(hub->Object(guess), ADD_ONE).Int(1).Send() == IPC_REFUSED; }));
    }
    EXPECT_EQ(Call(node, CALL_KEPT).Int(1).Answer(), 2);
    EXPECT_EQ(Call(hub_, ADD_ONE).Int(1).Answer(), 2);
}

TEST_F(IpcObjects, RequestsEndAtOnceWithTheProcess)
{
    std::vector<std::chrono::duration<double>> waits;
    for (const int how : {SIGABRT, 0, SIGKILL, SIGKILL, SIGKILL, SIGKILL, SIGKILL}) {
        ChildProcess process;
        const sptr<IRemoteObject> node = Start("node", process);
        const sptr<CountingRecipient> recipient(new CountingRecipient);
        const sptr<CountingRecipient> removed(new CountingRecipient);
        ASSERT_TRUE(node->AddDeathRecipient(recipient));
        ASSERT_TRUE(node->AddDeathRecipient(removed));
        ASSERT_TRUE(node->RemoveDeathRecipient(removed));
        EXPECT_FALSE(node->RemoveDeathRecipient(removed));
        std::thread hanging([&] { EXPECT_EQ(Call(node, HANG).Send(), IPC_DEAD_OBJECT); });
        const auto start = Clock::now();
        EXPECT_EQ(Call(node, DIE).Int(how).Send(), IPC_DEAD_OBJECT);
        hanging.join();
        EXPECT_TRUE(Eventually([&] { return recipient->count == 1; }));
        waits.emplace_back(Clock::now() - start);
        EXPECT_EQ(recipient->of, node.GetRefPtr());
        EXPECT_TRUE(node->IsObjectDead());
        EXPECT_EQ(Call(node, ADD_ONE).Int(1).Send(), IPC_DEAD_OBJECT);
        EXPECT_EQ(removed->count, 0);
        const sptr<CountingRecipient> late(new CountingRecipient);
        ASSERT_TRUE(node->AddDeathRecipient(late)) << "a watch on the dead succeeds, and is told at once";
        EXPECT_TRUE(Eventually([&] { return late->count == 1; }));
        EXPECT_EQ(recipient->count, 1);
        process.Wait();
    }
    std::sort(waits.begin(), waits.end());
    EXPECT_LT(waits[waits.size() / 2].count(), 0.1) << "the median, since the machine may be busy with other tests";
    EXPECT_LT(waits.back().count(), 2);
    EXPECT_FALSE(sptr<IRemoteObject>(new TestObject)->AddDeathRecipient(new CountingRecipient));
}

// A watch and its withdrawal race with the death: the recipient runs once or, if it was withdrawn, never.
TEST_F(IpcObjects, WatchesRaceWithDeath)
{
    for (int round = 0; round < 10; ++round) {
        ChildProcess process;
        const sptr<IRemoteObject> node = Start("node", process);
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                while (!stop) {
                    const sptr<CountingRecipient> recipient(new CountingRecipient);
                    node->AddDeathRecipient(recipient);
                    if (node->RemoveDeathRecipient(recipient)) {
                        EXPECT_EQ(recipient->count, 0);
                    } else {
                        EXPECT_TRUE(Eventually([&] { return recipient->count == 1; }));
                    }
                }
            });
        }
        process.Kill();
        ASSERT_TRUE(Eventually([&] { return node->IsObjectDead(); }));
        stop = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

}  // namespace
}  // namespace VEXA::test
