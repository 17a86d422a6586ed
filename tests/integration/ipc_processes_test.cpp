// SPDX-License-Identifier: Apache-2.0
// Tests of the transport that need real processes: death, exit and fork, memory, nesting, many threads at once.
#include <grp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <latch>
#include <thread>

#include "runtime_paths.h"
#include "support/processes.h"
#include "support/test_object.h"

namespace VEXA::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr gid_t kExtraGroup = 54321;

struct Node {
    ChildProcess process;
    sptr<IRemoteObject> object;
};

// A hub process, and as many more as a test asks for.
class IpcProcesses : public testing::Test {
protected:
    void SetUp() override
    {
        static const TestRuntime runtime;
        hubProcess_ = StartProcess("hub");
        setgroups(1, &kExtraGroup);  // as root
        ASSERT_TRUE(Eventually([this] {
            hub_ = GetContextObject();
            return hub_ != nullptr && Call(hub_, ADD_ONE, 1).Answer() == 2;
        }));
    }
    // `name` is one of the processes at the end of this file.
    static ChildProcess StartProcess(const std::string& name)
    {
        return ChildProcess(
            {"/proc/self/exe", "--gtest_also_run_disabled_tests", "--gtest_filter=Process.DISABLED_" + name});
    }
    Node StartNode()
    {
        Node node{StartProcess("node"), nullptr};
        EXPECT_TRUE(Eventually([&] {
            node.object = Call(hub_, GIVE).AnswerObject();
            return node.object != nullptr && !node.object->IsObjectDead();
        }));
        return node;
    }

    ChildProcess hubProcess_;
    sptr<IRemoteObject> hub_;
    const sptr<IRemoteObject> mine_{new TestObject};
};

TEST_F(IpcProcesses, RequestsEndAtOnceWithTheProcess)
{
    std::vector<std::chrono::duration<double>> waits;
    for (const int how : {SIGABRT, 0, SIGKILL, SIGKILL, SIGKILL, SIGKILL, SIGKILL}) {
        const Node dying = StartNode();
        const sptr<IRemoteObject>& node = dying.object;
        const sptr<CountingRecipient> recipient(new CountingRecipient);
        ASSERT_TRUE(node->AddDeathRecipient(recipient));
        std::thread hanging([&] { EXPECT_EQ(Call(node, HANG).Send(), IPC_DEAD_OBJECT); });
        const auto start = Clock::now();
        EXPECT_EQ(Call(node, DIE, how).Send(), IPC_DEAD_OBJECT);
        hanging.join();
        EXPECT_TRUE(Eventually([&] { return recipient->count == 1; }));
        waits.emplace_back(Clock::now() - start);
        EXPECT_EQ(recipient->of, node.GetRefPtr());
        EXPECT_TRUE(node->IsObjectDead());
        EXPECT_EQ(Call(node, ADD_ONE, 1).Send(), IPC_DEAD_OBJECT);
    }
    std::sort(waits.begin(), waits.end());
    EXPECT_LT(waits[waits.size() / 2].count(), 0.1) << "the median, since the machine may be busy with other tests";
    EXPECT_LT(waits.back().count(), 2);
    EXPECT_FALSE(mine_->AddDeathRecipient(new CountingRecipient));
}

// A thread stays with a caller only while another is left for the rest.
TEST_F(IpcProcesses, BusyCallersGetTheirOwnAnswersAndDoNotKeepTheLastThread)
{
    ASSERT_EQ(Call(hub_, LIMIT, 2).Send(), 0);
    const sptr<IRemoteObject> another = Call(hub_, MAKE_NEW).AnswerObject();
    const MessageOption oneWay(MessageOption::TF_ASYNC);
    std::latch served(8);
    std::vector<std::jthread> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.emplace_back([&, number = caller * 10000] {
            for (int i = 0; i < 2000 || !served.try_wait(); ++i) {
                EXPECT_EQ(
                    Call(hub_, ADD_ONE, number + i).Answer(MessageOption(MessageOption::TF_SYNC, 2)), number + i + 1);
                served.count_down(i == 0 ? 1 : 0);
                Call(another, ADD_ONE, 1).Send(oneWay);
            }
        });
    }
    callers.clear();
    EXPECT_TRUE(Eventually([&] { return Call(another, KEEP, mine_).Send(oneWay) == 0; })) << "its queue has room";
    EXPECT_TRUE(Eventually([&] { return Call(another, GIVE).AnswerObject() == mine_; })) << "none waits for ever";
}

TEST_F(IpcProcesses, ManySlowCallsOfOneProcessDoNotHoldUpAnother)
{
    const Node node = StartNode();
    std::vector<std::jthread> slow;
    for (int i = 0; i < 64; ++i) {
        slow.emplace_back([this] { EXPECT_EQ(Call(hub_, HANG).Send(), IPC_DEAD_OBJECT); });
    }
    for (const auto start = Clock::now(); Clock::now() < start + std::chrono::milliseconds(500);) {
        ASSERT_EQ(Call(node.object, NEST, 1, hub_).Answer(MessageOption(MessageOption::TF_SYNC, 1)), 1);
    }
    hubProcess_.Kill();
}

TEST_F(IpcProcesses, ResultsIdentitySizesAndNestedCallsComeThrough)
{
    for (const int32_t result : {0, 1, 1999, 2000, 2001, 2003, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(Call(hub_, RESULT, result).Send(), result);
    }
    EXPECT_EQ(Call(hub_, Code(9999)).Send(), IPC_UNKNOWN_REQUEST);
    Call threw(hub_, THROW);
    EXPECT_EQ(threw.Send(), IPC_HANDLER_THREW);
    EXPECT_EQ(threw.Reply().GetDataSize(), 0U) << "half a reply";
    for (const gid_t group : {kExtraGroup, getegid(), kExtraGroup + 1}) {
        const bool isIn = group == getegid() || (group == kExtraGroup && geteuid() == 0);
        Call who(hub_, WHO_CALLS, static_cast<int32_t>(group));
        EXPECT_EQ(who.Answer(), getpid());
        EXPECT_EQ(who.Reply().ReadInt32(), static_cast<int32_t>(geteuid()));
        EXPECT_EQ(who.Reply().ReadUint64(), IPCSkeleton::GetCallingEndpoint());
        EXPECT_EQ(who.Reply().ReadInt32(), isIn) << group;
        EXPECT_EQ(IPCSkeleton::IsCallerInGroup(group), isIn) << "outside a request";
    }
    // A string's length and its terminator take 8 bytes of the 16 MiB.
    for (const int limit : {4, 1}) {  // the only thread waits for no reply to be read
        EXPECT_EQ(Call(hub_, LIMIT, limit).Send(), 0);
        for (const size_t size : std::vector<size_t>{0, 400, 500, 5000, 300'000, 16777216 - 8}) {
            Call echo(hub_, ECHO, std::string(size, 'e'));
            EXPECT_EQ(echo.Send(), 0) << size;
            EXPECT_EQ(echo.Reply().ReadString().size(), size);
        }
    }
    EXPECT_EQ(Call(hub_, NEST, 60, mine_).Answer(), 60) << "deeper than either pool's limit: who waits does not count";
}

TEST_F(IpcProcesses, ACancelledThreadEndsBehindItsRequestsAndDrops)
{
    sptr<IRemoteObject> object = Call(hub_, MAKE_NEW).AnswerObject();
    int32_t answer = 0;
    std::thread([&] {
        pthread_cancel(pthread_self());
        answer = Call(hub_, ADD_ONE, 1).Answer();
        object = nullptr;
        ++answer;
        pthread_testcancel();
        ++answer;
    }).join();
    EXPECT_EQ(answer, 3);
    EXPECT_EQ(Call(hub_, ADD_ONE, 1).Answer(), 2);
}

TEST_F(IpcProcesses, ForkedChildIsRefused)
{
    const sptr<CountingRecipient> recipient(new CountingRecipient);
    EXPECT_TRUE(hub_->AddDeathRecipient(recipient));
    const auto inChild = [&] {
        const int code = Call(hub_, ADD_ONE, 1).Send() == IPC_FORKED ? 0 : 1;
        const bool isReached = GetContextObject() != nullptr || hub_->AddDeathRecipient(recipient) ||
                               hub_->RemoveDeathRecipient(recipient);
        hub_.clear();
        return isReached ? 2 : code;
    };
    EXPECT_EQ(InChild(inChild), 0);
    EXPECT_EQ(Call(hub_, ADD_ONE, 1).Answer(), 2);
}

TEST_F(IpcProcesses, LeavingWithRequestsUnderWayEndsQuickly)
{
    const auto start = Clock::now();
    ChildProcess leaving = StartProcess("leaving");
    sptr<IRemoteObject> object;
    EXPECT_TRUE(Eventually([&] { return (object = Call(hub_, GIVE).AnswerObject()) != nullptr; }));
    EXPECT_TRUE(Eventually([&] { return object->IsObjectDead(); })) << "although it has not ended";
    leaving.Signal(SIGTERM);
    EXPECT_TRUE(WIFSIGNALED(leaving.Wait())) << "with an exit status it has found something wrong";
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
}

// The programs of the other processes. These two run until they are killed.
TEST(Process, DISABLED_hub)
{
    EXPECT_EQ(PublishContextObject(new TestObject), PublishResult::DONE);
    pause();
}

TEST(Process, DISABLED_node)
{
    EXPECT_EQ(Call(GetContextObject(), KEEP, sptr<IRemoteObject>(new TestObject)).Send(), 0);
    pause();
}

// Exits from another thread.
TEST(Process, DISABLED_leaving)
{
    static sptr<IRemoteObject> hub;
    // Runs after the transport's own handler, which takes the socket along and ends all connections.
    std::atexit([] {
        const auto start = Clock::now();
        const bool isLeft = access(ipc::EndpointPath(ipc::IpcProcess::Get().Start()->Id()).c_str(), F_OK) != 0 &&
                            GetContextObject() == nullptr && Call(hub, ADD_ONE, 1).Send() == IPC_EXITING &&
                            Clock::now() - start < std::chrono::milliseconds(100);
        if (!isLeft) {
            _exit(34);
        }
        pause();  // the rest of the exit takes long
    });
    hub = GetContextObject();
    ASSERT_NE(hub, nullptr);
    EXPECT_EQ(Call(hub, KEEP, sptr<IRemoteObject>(new TestObject)).Send(), 0);
    ASSERT_EQ(InChild([] { return std::exit(0), 0; }), 34) << "the socket is its parent's";
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { Call(hub, HANG).Send(); });
        threads.emplace_back([&] {
            while (Call(hub, ADD_ONE, 1).Send() == 0) {
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::thread([] { std::exit(33); }).join();
}

}  // namespace
}  // namespace VEXA::test
