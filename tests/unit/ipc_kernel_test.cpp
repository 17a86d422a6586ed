// SPDX-License-Identifier: Apache-2.0
#include <sys/epoll.h>

#include <latch>
#include <semaphore>

#include "ipc_fixture.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {
namespace {

TEST(SocketTest, ListensAndConnectsAtPaths)
{
    const test::TempDir folder;
    const std::string path = folder.Path() + "/socket";
    std::ofstream(path + ".new") << "left behind";
    const UniqueFd listener = ListenAt(path);
    ASSERT_EQ(listen(listener.Get(), 0), 0);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0666));
    EXPECT_TRUE(!ListenAt(folder.Path()) && errno == EISDIR && access((folder.Path() + ".new").c_str(), F_OK) != 0);
    EXPECT_TRUE(!ConnectTo(std::string(108, 'x')) && errno == ENAMETOOLONG);
    const UniqueFd first = ConnectAtOnce(path);
    for (const bool isInterrupted : {false, true}) {
        const std::unique_ptr<Alarms> alarms(isInterrupted ? new Alarms : nullptr);
        const Deadline start = Now();
        EXPECT_FALSE(ConnectTo(path)) << "the backlog is full";
        EXPECT_TRUE(Now() - start > 950ms && Now() - start < 3s) << isInterrupted;
    }
}

TEST(ProcessLifeTest, AChildClosesOnlyWhatItsParentHasOpen)
{
    ProcessLife::Watch();
    SocketPair ends;
    const int open = ends.near.Get();
    const int closed = ends.far.Get();
    ends.far.Reset();
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
    const auto inGrandchild = [&] { return !isOpen(open); };
    ASSERT_EQ(dup2(0, closed), closed);
    const auto inChild = [&] { return isOpen(open) || !isOpen(closed) || dup2(0, open) < 0 || InChild(inGrandchild); };
    EXPECT_EQ(InChild(inChild), 0);
    close(closed);
}

// Notes what it is asked for. There is something to read in the first round of each settling.
class Watched : public EventHandler {
public:
    Watched(UniqueFd fd, std::function<void()> action) : EventHandler(std::move(fd)), action_(std::move(action)) {}
    void OnEvents(uint32_t) override { action_(); }
    void OnTick(Deadline) override { notes += " tick"; }
    void AcceptAll() override { notes += " accept"; }
    void TakeStock() override { notes += " count"; }
    bool Drain() override { return (notes += " read").ends_with("count read"); }
    void Resume() override { notes += " resume"; }
    std::string notes;

private:
    const std::function<void()> action_;
};

using ReactorTest = IpcParts;

TEST_F(ReactorTest, CallsWhoHasNotBeenRemovedAndTicksWhileItIsNeeded)
{
    SocketPair pairs[3];
    std::vector<sptr<Watched>> watched;
    int events = 0;
    for (SocketPair& ends : pairs) {
        const auto removeBoth = [&] { ++events, reactor_.Remove(watched[0]->Fd()), reactor_.Remove(watched[1]->Fd()); };
        Write(ends.far, &ends != &pairs[2] ? "1" : "");
        watched.emplace_back(new Watched(std::move(ends.near), removeBoth));
        ASSERT_TRUE(reactor_.Add(watched.back(), EPOLLIN));
    }
    int ticks = 0;
    reactor_.SetTickAction([&](Deadline) { ++ticks; });
    reactor_.NeedTicks().reset();
    reactor_.Turn(false);
    EXPECT_EQ(events, 1) << "both were in one batch";
    EXPECT_EQ(ticks, 0);
    reactor_.Settle(0s);

    Reactor::Ticks needed;
    auto settling = std::async(std::launch::async, [&] { return reactor_.Settle(20s); });
    EXPECT_EQ(settling.wait_for(20ms), std::future_status::timeout) << "nothing has been read yet";
    std::thread needing([&] {
        EXPECT_TRUE(settling.get());
        std::this_thread::sleep_for(20ms);
        needed = reactor_.NeedTicks();
    });
    const Alarms alarms;
    const Deadline start = Now();
    int turns = 0;
    for (; ticks < 2 && turns < 100; ++turns) {
        EXPECT_TRUE(reactor_.Turn());
    }
    EXPECT_LT(turns, 25) << "it waits";
    needing.join();
    EXPECT_GE(Now() - start, 950ms);
    Alarms::Repeat(0);
    reactor_.ResumeLater();
    reactor_.Turn();
    EXPECT_EQ(ticks, 2) << "it does not wait for the next";
    EXPECT_LT(Now() - start, 5s);
    const std::string settled = " accept count read read";
    EXPECT_EQ(watched[2]->notes, settled + settled + " tick tick resume");
    EXPECT_EQ(watched[0]->notes + watched[1]->notes, "");
}

// Workers whose threads are counted, and the first of which can't be had. They outlive the test.
struct Workers {
    std::atomic<size_t> asked{0};
    std::atomic<size_t> alive{0};
    std::atomic<size_t> inside{0};
    std::atomic<size_t> done{0};
    std::latch open{1};
    WorkerPool pool{[this](const char* name, const std::function<void()>& body) {
        const auto run = [this, body] {
            sigset_t blocked;
            pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
            EXPECT_TRUE(sigismember(&blocked, SIGTERM));
            body();
            --alive;
        };
        return asked++ > 0 && (++alive, StartThread(name, run));
    }};
};

TEST(WorkerPoolTest, ThreadsStandInForThoseThatWait)
{
    // The limit, how many tasks wait, how many there are, and how many are carried out at once.
    const std::tuple<size_t, size_t, size_t, size_t> rows[] = {
        {3, 0, 10, 3}, {0, 0, 3, 1}, {1, 1, 4, 2}, {3, 10, 10, 10}, {1, 300, 300, 256}, {1000, 0, 300, 256}};
    for (const auto& [limit, waiting, tasks, threads] : rows) {
        Workers& workers = *new Workers;
        ASSERT_TRUE(workers.pool.Open());
        workers.pool.SetLimit(limit);
        for (size_t i = 0; i < tasks; ++i) {
            workers.pool.Post([&workers, waits = i < waiting] {
                std::unique_ptr<WorkerWait> wait(waits ? new WorkerWait : nullptr);
                std::unique_ptr<WorkerWait> within(waits ? new WorkerWait : nullptr);
                ++workers.inside;
                workers.open.wait();
                within.reset();
                wait.reset();
                ++workers.done;
            });
        }
        EXPECT_TRUE(Eventually([&, most = threads] { return workers.inside == most; })) << workers.inside;
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(workers.inside, threads);
        EXPECT_LE(workers.asked, std::min<size_t>(256, threads + 1) + 1);
        workers.open.count_down();
        EXPECT_TRUE(Eventually([&, all = tasks] { return workers.done == all; }));
        const size_t left = std::max<size_t>(limit, 1);
        EXPECT_TRUE(Eventually([&] { return workers.alive <= left; })) << "stand-ins end";
    }
}

// Carries out requests of processes, each until it is told to end one. Outlives the test.
struct SlowRequests {
    WorkerPool pool{&StartThread};
    std::atomic<int> inside[3];
    std::counting_semaphore<> ends[3]{
        std::counting_semaphore<>(0), std::counting_semaphore<>(0), std::counting_semaphore<>(0)};
    void Serve(uint64_t process)
    {
        if (pool.Begin(process, [this, process] { Serve(process); })) {
            ++inside[process];
            ends[process].acquire();
            --inside[process];
            pool.Done();
        }
    }
};

TEST(WorkerPoolTest, AProcessHasHalfOfTheThreadsWhileOthersAreServedAndNeverTheLast)
{
    auto& served = *new SlowRequests;
    served.pool.SetLimit(4);
    ASSERT_TRUE(served.pool.Open());
    // So many requests of a process come or, below 0, end; and how many of the first and of the second are under way.
    const std::tuple<uint64_t, int, int, int> rows[] = {{1, 10, 3, 0}, {2, 3, 3, 1}, {1, -1, 2, 2}, {1, -1, 2, 2},
        {2, -1, 2, 2}, {2, -1, 2, 1}, {2, -1, 3, 0}, {1, -1, 3, 0}, {1, -7, 0, 0}};
    for (const auto& [process, more, first, second] : rows) {
        for (int i = 0; i < more; ++i) {
            served.pool.Post([&served, which = process] { served.Serve(which); });
        }
        served.ends[process].release(std::max(0, -more));
        std::this_thread::sleep_for(20ms);
        EXPECT_TRUE(
            Eventually([&, a = first, b = second] { return served.inside[1] == a && served.inside[2] == b; }, 5s))
            << process << ' ' << more << ": " << served.inside[1] << ' ' << served.inside[2];
    }
}

}  // namespace
}  // namespace VEXA::ipc
