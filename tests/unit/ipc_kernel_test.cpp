// SPDX-License-Identifier: Apache-2.0
// Sockets, the reactor and the workers.
#include <sys/epoll.h>
#include <sys/time.h>

#include <latch>
#include <thread>

#include "ipc_fixture.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {
namespace {

// A process that was stopped finds an answer there, and its own time past.
TEST(SocketTest, WhatHasComeCountsAfterTheDeadline)
{
    const SocketPair ends(SOCK_SEQPACKET);
    Write(ends.far, "one");
    Write(ends.far, "two");
    const Deadline past = Now() - 1s;
    size_t moved = 0;
    char text[7] = {};
    EXPECT_EQ(ReceiveAtLeast(ends.near.Get(), text, 6, 6, past, moved), Transfer::DONE);
    EXPECT_STREQ(text, "onetwo");
    Write(ends.far, "end");
    EXPECT_EQ(ReceiveAtLeast(ends.near.Get(), text, 6, 6, past, moved), Transfer::WOULD_BLOCK);
}

TEST(SocketTest, SignalsDoNotProlongTheWaitForABacklog)
{
    const test::TempDir folder;
    const std::string path = folder.Path() + "/socket";
    const UniqueFd listener = ListenAt(path);
    ASSERT_EQ(listen(listener.Get(), 0), 0);
    const UniqueFd first = ConnectAtOnce(path);
    signal(SIGALRM, [](int) {});
    const itimerval often{{0, 300'000}, {0, 300'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const Deadline start = Now();
    EXPECT_FALSE(ConnectTo(path));
    EXPECT_LT(Now() - start, 3s);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
}

class Watched : public EventHandler {
public:
    Watched(UniqueFd fd, std::function<void()> action) : EventHandler(std::move(fd)), action_(std::move(action)) {}
    void OnEvents(uint32_t) override { action_(); }

private:
    const std::function<void()> action_;
};

TEST(ReactorTest, CallsWhoHasNotBeenRemovedAndTicksWhileItIsNeeded)
{
    Reactor reactor(&StartNone);
    ASSERT_TRUE(reactor.Open());
    SocketPair pairs[2];
    const int fds[] = {pairs[0].near.Get(), pairs[1].near.Get()};
    int events = 0;
    for (SocketPair& ends : pairs) {
        const auto removeBoth = [&] { ++events, reactor.Remove(fds[0]), reactor.Remove(fds[1]); };
        Write(ends.far, "1");
        ASSERT_TRUE(reactor.Add(new Watched(std::move(ends.near), removeBoth), EPOLLIN));
    }
    int ticks = 0;
    reactor.SetTickAction([&](Deadline) { ++ticks; });
    reactor.ResumeLater();
    reactor.Turn(false);
    EXPECT_EQ(events, 1) << "both were in one batch";
    EXPECT_EQ(ticks, 0);

    Reactor::Ticks needed;
    std::thread asking([&] {
        EXPECT_TRUE(reactor.Settle(20s));
        std::this_thread::sleep_for(20ms);
        needed = reactor.NeedTicks();
    });
    const Deadline start = Now();
    int turns = 0;
    while (ticks < 2) {
        reactor.Turn();
        ++turns;
    }
    EXPECT_LT(turns, 20) << "it waits";
    asking.join();
    EXPECT_GE(Now() - start, 950ms);
    EXPECT_LT(Now() - start, 5s);
}

// Workers whose threads are counted. They outlive the test.
struct Workers {
    std::atomic<size_t> alive{0};
    std::atomic<size_t> started{0};
    std::atomic<size_t> inside{0};
    std::atomic<size_t> done{0};
    std::latch open{1};
    WorkerPool pool{[this](const char* name, const std::function<void()>& body) {
        ++alive;
        ++started;
        return StartThread(name, [this, body] {
            body();
            --alive;
        });
    }};
};

TEST(WorkerPoolTest, ThreadsStandInForThoseThatWait)
{
    // The limit, whether tasks wait, how many there are, and how many are carried out at once.
    const std::tuple<size_t, bool, size_t, size_t> rows[] = {
        {3, false, 10, 3}, {0, false, 3, 1}, {3, true, 10, 10}, {1, true, 300, 256}, {1000, false, 300, 256}};
    for (const auto& [limit, waits, tasks, threads] : rows) {
        Workers& workers = *new Workers;
        ASSERT_TRUE(workers.pool.Open());
        workers.pool.SetLimit(limit);
        for (size_t i = 0; i < tasks; ++i) {
            workers.pool.Post([&workers, waits = waits] {
                std::unique_ptr<WorkerWait> wait(waits ? new WorkerWait : nullptr);
                ++workers.inside;
                workers.open.wait();
                wait.reset();
                ++workers.done;
            });
        }
        EXPECT_TRUE(Eventually([&, most = threads] { return workers.inside == most; })) << workers.inside;
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(workers.inside, threads);
        EXPECT_LE(workers.started, std::min<size_t>(256, threads + 1));
        workers.open.count_down();
        EXPECT_TRUE(Eventually([&, all = tasks] { return workers.done == all; }));
        const size_t left = std::max<size_t>(limit, 1);
        EXPECT_TRUE(Eventually([&] { return workers.alive <= left; })) << "stand-ins end";
    }
}

}  // namespace
}  // namespace VEXA::ipc
