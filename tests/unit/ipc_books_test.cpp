// SPDX-License-Identifier: Apache-2.0
#include <latch>
#include <numeric>

#include "ipc_fixture.h"
#include "peer_log.h"

namespace VEXA::ipc {
namespace {

class OneWayTest : public IpcParts {
protected:
    uint64_t asked_ = 0;  // of the receiver, by a frame and not by the byte of a request
    OneWayCredit credit_{[this](const void* frame, size_t size) {
        asked_ = size > 1 ? static_cast<const FrameHeader*>(frame)->extra : asked_;
        return true;
    }};
    OneWayDebt debt_{budget_, [](FrameKind, uint64_t, uint64_t) {}};
    std::deque<OneWayDebt::Charge> charges_;

    int32_t Send(uint64_t bytes) { return credit_.SendOneWay("", 1, bytes); }
    bool Arrives(uint64_t bytes)
    {
        charges_.push_back(debt_.Arrive(bytes));
        return charges_.back() != nullptr;
    }
    bool Wants(uint64_t bytes)
    {
        return debt_.Want({1, 1}, bytes, [this] { debt_.Widen(); });
    }
};

// Those of which the receiver has not said that they are done: 1,024 requests, and 16 MiB.
TEST_F(OneWayTest, AProcessSendsSoMuchAhead)
{
    for (int i = 0; i < 1024; ++i) {
        EXPECT_EQ(Send(16380), IPC_OK) << i;
    }
    EXPECT_EQ(Send(0), IPC_QUEUE_FULL);
    EXPECT_EQ(asked_, 4 * 17404 - 65536U);
    EXPECT_FALSE(credit_.GiveBack(4, 4 * 16380)) << "what is kept has not been sent";
    EXPECT_TRUE(credit_.Widen(17822720 - 65536));
    EXPECT_FALSE(credit_.GiveBack(1025, 0) || credit_.GiveBack(0, 1024 * 16380 + 1));
    EXPECT_TRUE(credit_.GiveBack(1024, 1024 * 16380));
    EXPECT_FALSE(credit_.GiveBack(1, 0) || credit_.GiveBack(0, 1));
    EXPECT_TRUE(Send(16777216) == IPC_OK && Send(0) == IPC_OK);
    EXPECT_EQ(Send(1), IPC_QUEUE_FULL);
}

// A request counts for its bytes and 1,024 more.
TEST_F(OneWayTest, TheReceiverTakesWhatItsWindowHolds)
{
    for (int i = 0; i < 64; ++i) {
        EXPECT_TRUE(Arrives(0)) << i;
    }
    EXPECT_FALSE(Arrives(0));
    charges_.clear();
    EXPECT_FALSE(Arrives(64513));
    EXPECT_TRUE(Arrives(64512));
    ByteBudget::Charge full(budget_);
    EXPECT_TRUE(full.Set({1, 1}, 67108864) && Wants(1) && !Wants(1)) << "there is no room";
    debt_.Drop();
    full.Set({}, 0);
    EXPECT_FALSE(Wants(0) || Wants(17825793));
    EXPECT_TRUE(Wants(17825792) && !Wants(1));
    EXPECT_TRUE(Arrives(16712704) && !Arrives(1) && Arrives(0));
    for (int i = 0; i < 1021; ++i) {
        EXPECT_TRUE(Arrives(0)) << i;
    }
    EXPECT_FALSE(Arrives(0));
    charges_.clear();
}

// The sender is told at the first of these.
TEST_F(OneWayTest, WhatIsDoneIsGathered)
{
    // Frames in the queue, the bytes of each, and after how many it is told.
    const std::tuple<const char*, uint64_t, uint64_t, std::vector<uint64_t>> rows[] = {
        {"the queue is empty", 3, 4, {3}},
        {"64 are gathered", 150, 4, {64, 64, 22}},
        {"1 MiB is gathered", 30, 131072, {8, 8, 8, 6}},
        {"less than 64 more may come", 961, 0, {1, 1, 64}},
        {"half of the bytes are waiting", 10, 1000000, {1, 1, 2, 2, 2, 2}},
    };
    for (const auto& [name, frames, bytes, told] : rows) {
        std::vector<uint64_t> gathered;
        OneWayDebt debt(budget_, [&, each = bytes](FrameKind kind, uint64_t some, uint64_t their) {
            if (kind == FrameKind::ONE_WAY_ACK) {
                gathered.push_back(some);
                EXPECT_EQ(their, some * each) << each;
            }
        });
        std::deque<OneWayDebt::Charge> charges;
        EXPECT_TRUE(debt.Want({1, 1}, 17825792, nullptr));
        for (uint64_t i = 0; i < frames; ++i) {
            charges.push_back(debt.Arrive(bytes));
        }
        while (!charges.empty() && gathered.size() < told.size()) {
            charges.pop_front();
        }
        EXPECT_EQ(gathered, told) << name;
        charges.resize(charges.size() > 0 ? charges.size() - 1 : 0);
        const uint64_t done = std::accumulate(told.begin(), told.end(), uint64_t{0});
        EXPECT_TRUE(debt.Want({1, 1}, done * (bytes + 1024), nullptr)) << "the window has become smaller by that";
        uint64_t room = 0;
        for (; charges.emplace_back(debt.Arrive(bytes)) != nullptr; ++room) {
        }
        const uint64_t all = std::min<uint64_t>(1024, 16777216 / std::max<uint64_t>(bytes, 1));
        EXPECT_EQ(room, all - frames + done) << "by what it was told";
    }
}

TEST(RefusalBudgetTest, Bears64ThingsAndOneASecond)
{
    RefusalBudget budget;
    Deadline now = Now();
    // How much time passes, how many things are tried, and how many of them are borne.
    const std::tuple<std::chrono::milliseconds, int, int> rows[] = {
        {0ms, 1, 1}, {9s, 100, 64}, {999ms, 100, 0}, {1ms, 100, 0}, {3000ms, 100, 2}, {64s, 100, 64}, {100h, 100, 64}};
    for (const auto& [passed, tried, borne] : rows) {
        now += passed;
        int taken = 0;
        while (taken < tried && budget.Take(now)) {
            ++taken;
        }
        EXPECT_EQ(taken, borne) << passed.count();
    }
}

TEST(ConnectionCountsTest, HalfOrThreeQuartersOfTheDescriptorsAnd4096ForOneUser)
{
    size_t descriptors = 0;
    int asked = 0;
    ConnectionCounts counts([&] { return descriptors; }, [&] { ++asked; });
    const auto take = [&](const Credentials& who, std::vector<ConnectionCounts::Slot>& slots) {
        while (ConnectionCounts::Slot slot = counts.Take(who)) {
            slots.push_back(std::move(slot));
        }
        return slots.size();
    };
    // How many descriptors there are; what a process gets, it and others of its user, the processes of another user,
    // and these again when one of the first has ended.
    const std::tuple<size_t, size_t, size_t, size_t, size_t> rows[] = {{2, 1, 1, 0, 1}, {10, 2, 5, 2, 3},
        {301, 75, 150, 75, 76}, {10000, 2048, 4096, 3404, 3405}, {SIZE_MAX, 2048, 4096, 4096, 4096}};
    for (const auto& [limit, process, user, another, anotherThen] : rows) {
        descriptors = limit;
        std::vector<ConnectionCounts::Slot> first;
        std::vector<ConnectionCounts::Slot> second;
        EXPECT_EQ(take({1, 1}, first), process) << limit;
        take({2, 1}, first);
        EXPECT_EQ(take({3, 1}, first), user) << limit;
        take({4, 2}, second);
        EXPECT_EQ(take({5, 2}, second), another) << limit;
        first.pop_back();
        EXPECT_EQ(take({5, 2}, second), anotherThen) << limit;
        EXPECT_EQ(take({3, 1}, first), user - (anotherThen - another)) << limit;
    }
    // Others are asked when there are 87 of 100 already, and no more than once a second.
    descriptors = 400;
    Deadline now = Now();
    std::vector<ConnectionCounts::Slot> slots;
    for (const auto& [more, passed, times] :
        {std::tuple(0, 1000, 1), {87, 1000, 1}, {1, 0, 2}, {1, 999, 2}, {0, 1, 3}}) {
        for (int i = 0; i < more; ++i) {
            slots.push_back(counts.Take({1, 1}));
        }
        counts.AskWhereFew(now += std::chrono::milliseconds(passed));
        EXPECT_EQ(asked, times) << slots.size();
    }
}

using PeerLinesTest = LoggedTest;

TEST_F(PeerLinesTest, FiveOfAProcessAndTwentyOfAUserInASecond)
{
    PeerLines lines;
    Deadline now = Now();
    // After so many milliseconds, how many of ten lines of a process and user are written.
    const std::tuple<int, pid_t, uid_t, int> rows[] = {{0, 1, 7, 5}, {0, 2, 7, 5}, {999, 1, 7, 0}, {0, 3, 7, 5},
        {0, 4, 7, 5}, {0, 5, 7, 0}, {0, 6, 8, 5}, {1, 1, 7, 5}};
    for (const auto& [passed, process, user, written] : rows) {
        now += std::chrono::milliseconds(passed);
        int taken = 0;
        for (int i = 0; i < 10; ++i) {
            taken += lines.Take({process, user}, now) ? 1 : 0;
        }
        EXPECT_EQ(taken, written) << process;
    }
}

using ByteBudgetTest = IpcParts;

TEST_F(ByteBudgetTest, AProcessHolds64MebibytesAndAUser256)
{
    std::deque<ByteBudget::Charge> charges;
    std::string going;
    // Which charge, of which process and user, becomes how large, if it does, and which of those that wait it lets on.
    const std::tuple<char, uint64_t, uid_t, uint64_t, bool, std::string> rows[] = {{'a', 1, 7, 67108865, false, ""},
        {'a', 1, 7, 67108864, true, ""}, {'b', 1, 7, 1, false, ""}, {'c', 2, 7, 67108864, true, ""},
        {'d', 3, 7, 67108864, true, ""}, {'e', 4, 7, 67108860, true, ""}, {'f', 5, 7, 6, false, ""},
        {'g', 6, 8, 5, true, ""}, {'h', 1, 7, 2, false, ""}, {'h', 1, 7, 0, true, ""}, {'a', 1, 7, 67108862, true, "b"},
        {'e', 4, 7, 67108859, true, "f"}, {'f', 5, 7, 0, true, ""}, {'b', 1, 7, 3, false, ""},
        {'a', 1, 7, 0, true, "b"}};
    for (const auto& [name, process, user, bytes, isSet, others] : rows) {
        while (charges.size() <= size_t(name - 'a')) {
            charges.emplace_back(budget_);
        }
        EXPECT_EQ(charges[size_t(name - 'a')].Set({process, user}, bytes, [&, who = name] { going += who; }), isSet);
        workers_.RunTasks();
        EXPECT_EQ(std::exchange(going, ""), others) << name << bytes;
    }
}

void Post(DeathNotifier& notifier, const sptr<IRemoteObject::DeathRecipient>& recipient)
{
    DeathNotifier::Notices notices{{nullptr, recipient}};
    notifier.Post(notices);
}

// Notes when it begins and ends, and meanwhile has the notifier tell what it may, as its other threads would. Uses it
// once more when it goes with its notice.
class Noted : public IRemoteObject::DeathRecipient {
public:
    Noted(char name, std::string& notes, DeathNotifier& notifier) : name_(name), notes_(notes), notifier_(notifier) {}
    ~Noted() override { notes_ += notifier_.Cancel(nullptr, nullptr) ? '?' : '~'; }
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        notes_ += name_;
        while (notifier_.TellOne()) {
        }
        throw notes_ += ')';
    }

private:
    const char name_;
    std::string& notes_;
    DeathNotifier& notifier_;
};

TEST(DeathNotifierTest, TellsInOrderAndNoRecipientTwiceAtATime)
{
    DeathNotifier notifier(&StartNone);
    std::string notes;
    const sptr<Noted> twice(new Noted('b', notes, notifier));
    for (const sptr<Noted>& each : {sptr(new Noted('a', notes, notifier)), twice, twice, twice,
             sptr(new Noted('c', notes, notifier)), sptr(new Noted('d', notes, notifier))}) {
        Post(notifier, each);
    }
    EXPECT_FALSE(notifier.Cancel(sptr<IRemoteObject>(new IPCObjectStub).GetRefPtr(), twice)) << "another object's";
    EXPECT_TRUE(notifier.Cancel(nullptr, twice)) << "one of three";
    while (notifier.TellOne()) {
    }
    EXPECT_EQ(notes, "abcd)~)~)b))~");
    EXPECT_FALSE(notifier.Cancel(nullptr, twice));
}

class Slow : public IRemoteObject::DeathRecipient {
public:
    explicit Slow(bool isSlow = true) : isSlow_(isSlow) {}
    static inline std::atomic<int> begun{0};
    static inline std::latch over{1};
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        ++begun;
        if (isSlow_) {
            over.wait();
        }
    }

private:
    const bool isSlow_;
};

TEST(DeathNotifierTest, SevenThatTakeLongHoldUpNoneAndEightDo)
{
    // Its threads outlive the test.
    static std::atomic<int> threads{0};
    static DeathNotifier& notifier = *new DeathNotifier(
        [](const char* name, const std::function<void()>& body) { return ++threads, StartThread(name, body); });
    EXPECT_TRUE(notifier.Start());
    const Deadline start = Now();
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(Eventually([&] { return Slow::begun >= i; }));
        EXPECT_LE(threads, i + 1) << "one is idle";
        Post(notifier, new Slow(i != 7));
    }
    EXPECT_GE(Now() - start, 7 * 5ms) << "each has had its time";
    EXPECT_FALSE(Eventually([] { return Slow::begun != 9; }, 100ms));
    Slow::over.count_down();
    EXPECT_TRUE(Eventually([] { return Slow::begun == 10; }));
    std::this_thread::sleep_for(20ms);
    Post(notifier, new Slow);
    EXPECT_TRUE(Eventually([] { return Slow::begun == 11; }, 5s)) << "those that are idle are woken";
    std::this_thread::sleep_for(20ms);
    const Deadline stopped = Now();
    notifier.Stop();
    EXPECT_LT(Now() - stopped, 5s) << "and again to end";
}

}  // namespace
}  // namespace VEXA::ipc
