// SPDX-License-Identifier: Apache-2.0
// Requests between real processes: right answers under load, nesting, limits, time-outs.
#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "runtime_paths.h"
#include "support/peer_fixture.h"

namespace VEXA::test {
namespace {

using Clock = std::chrono::steady_clock;

class IpcRequests : public PeerTest {};

// A thread stays with a caller only while another is left for the rest.
TEST_F(IpcRequests, BusyCallersGetTheirOwnAnswersAndDoNotKeepTheLastThread)
{
    ASSERT_EQ(Call(hub_, LIMIT).Int(2).Send(), 0);
    std::latch served(8);
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.emplace_back([&, number = caller * 10000] {
            for (int i = 0; i < 2000 || !served.try_wait(); ++i) {
                EXPECT_EQ(Call(hub_, ADD_ONE).Int(number + i).Wait(2).Answer(), number + i + 1);
                if (i == 0) {
                    served.count_down();
                }
            }
        });
    }
    for (std::thread& thread : callers) {
        thread.join();
    }
}

TEST_F(IpcRequests, ResultsAndIdentityComeThrough)
{
    for (const int32_t result : {0, 1, 1999, 2000, 2001, 2003, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(Call(hub_, RESULT).Int(result).Send(), result);
    }
    EXPECT_EQ(Call(hub_, 9999).Send(), IPC_UNKNOWN_REQUEST);
    Call threw(hub_, THROW);
    EXPECT_EQ(threw.Send(), IPC_HANDLER_THREW);
    EXPECT_EQ(threw.Reply().GetDataSize(), 0U) << "half a reply";
    Call who(hub_, WHO_CALLS);
    ASSERT_EQ(who.Send(), 0);
    EXPECT_EQ(who.Reply().ReadInt32(), getpid());
    EXPECT_EQ(who.Reply().ReadInt32(), static_cast<int32_t>(geteuid()));
}

TEST_F(IpcRequests, NestedCallsDoNotDeadlock)
{
    const sptr<IRemoteObject> mine(new TestObject);
    // Deeper than either pool's limit: those that wait don't count.
    EXPECT_EQ(Call(hub_, NEST).Int(60).Object(mine).Answer(), 60);
}

TEST_F(IpcRequests, SizesAreLimitedAtSixteenMebibytes)
{
    // A string's length and its terminator take 8 bytes.
    const size_t largest = 16777216 - 8;
    for (const size_t size : {size_t{0}, size_t{400}, size_t{500}, size_t{5000}, size_t{300'000}, largest}) {
        Call echo(hub_, ECHO);
        ASSERT_EQ(echo.Text(std::string(size, 'e')).Send(), 0) << size;
        EXPECT_EQ(echo.Reply().ReadString().size(), size);
    }
    MessageParcel parcel;
    EXPECT_FALSE(parcel.WriteString(std::string(largest + 4, 'e')));

    for (const int32_t count : {1, 255, 256, 257}) {
        Call many(hub_, MANY_NEW);
        ASSERT_EQ(many.Int(count).Send(), 0);
        int32_t got = 0;
        while (many.Reply().ReadRemoteObject() != nullptr) {
            ++got;
        }
        EXPECT_EQ(got, std::min(count, 256));
    }
    EXPECT_TRUE(TableSettlesAt(hub_, 0));
}

TEST_F(IpcRequests, AStoppedProcessCostsTheWaitTimeOnly)
{
    ASSERT_TRUE(hubProcess_.Stop());
    const auto start = Clock::now();
    EXPECT_EQ(Call(hub_, ADD_ONE).Int(1).Wait(1).Send(), IPC_TIMED_OUT);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    hubProcess_.Signal(SIGCONT);
    EXPECT_EQ(Call(hub_, ADD_ONE).Int(6).Answer(), 7) << "the late answer to the first is nobody's";
}

TEST_F(IpcRequests, ForkedChildIsRefused)
{
    const pid_t child = fork();
    if (child == 0) {
        // Reports what went wrong by its exit code.
        int code = Call(hub_, ADD_ONE).Int(1).Send() == IPC_FORKED ? 0 : 1;
        code += GetContextObject() == nullptr ? 0 : 2;
        code += hub_->AddDeathRecipient(new CountingRecipient) ? 4 : 0;
        hub_.clear();
        _exit(code);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Call(hub_, ADD_ONE).Int(1).Answer(), 2);
}

TEST_F(IpcRequests, LeavingWithRequestsUnderWayEndsQuickly)
{
    const pid_t child = fork();
    if (child == 0) {
        // A process of its own, so it starts anew; what it inherited it may not use.
        execl("/proc/self/exe", "leave", "--gtest_filter=LeavingProcess.*", "--gtest_also_run_disabled_tests", nullptr);
        _exit(127);
    }
    int status = -1;
    ASSERT_TRUE(Eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 33) << status;
}

// Run by the test above, in a process that it starts.
TEST(LeavingProcess, DISABLED_ExitsFromAnotherThread)
{
    // Runs after the transport's own handler, which takes the socket along.
    std::atexit([] {
        if (access(ipc::EndpointPath(ipc::IpcProcess::Get().Start()->Id()).c_str(), F_OK) == 0) {
            _exit(34);
        }
    });
    const sptr<IRemoteObject> hub = GetContextObject();
    ASSERT_NE(hub, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { Call(hub, HANG).Send(); });
        threads.emplace_back([&] {
            while (Call(hub, ADD_ONE).Int(1).Send() == 0) {
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::thread([] { std::exit(33); }).join();
}

}  // namespace
}  // namespace VEXA::test
