// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <csignal>

#include "daemon/service_table.h"
#include "samgr_fakes.h"

namespace VEXA::samgr {
namespace {

using namespace std::chrono_literals;
using TimePoint = ServiceTable::TimePoint;

constexpr int32_t kId = 7;
constexpr uid_t kServiceUser = 500;
constexpr uid_t kOtherUser = 600;
const Caller kClient{50, kOtherUser};

class SamgrTable : public testing::Test {
protected:
    SamgrTable() { UseProfile(Profile()); }

    void UseProfile(Profile profile)
    {
        profile.id = kId;
        profile.program = "service";
        profile.registrars.uids = {kServiceUser};
        if (profile.lookup.uids.empty()) {
            profile.lookup.everyone = true;
        }
        table_->SetProfiles({std::make_shared<Profile>(profile)});
    }
    int32_t Load()
    {
        return table_->Load(kId, kClient, [this](const LoadOutcome& outcome) { outcomes_.push_back(outcome); });
    }
    // The pid of the program that a load has started.
    pid_t LoadAndStart()
    {
        EXPECT_EQ(Load(), SAMGR_OK);
        table_->RunDue();
        return 999 + starter_.starts;
    }
    sptr<FakeProxy> Register(pid_t pid)
    {
        sptr<FakeProxy> object(new FakeProxy);
        EXPECT_EQ(table_->Add(kId, {pid, kOtherUser}, object), SAMGR_OK);
        return object;
    }
    void End(pid_t pid, int signal)
    {
        ProgramEnd end;
        end.bySignal = signal != 0;
        end.status = signal;
        table_->OnProgramEnd(pid, end);
    }

    TimePoint now_ = TimePoint() + 1000s;
    int wakes_ = 0;
    FakeStarter starter_;
    sptr<ServiceTable> table_{
        new ServiceTable({&starter_, [this] { return now_; }, [this] { ++wakes_; }, TimePoint()})};
    std::vector<LoadOutcome> outcomes_;
};

TEST_F(SamgrTable, LoadsOfOneServiceStartOneProgramAndAllGetItsObject)
{
    for (int load = 0; load < 3; ++load) {
        EXPECT_EQ(Load(), SAMGR_OK);
    }
    EXPECT_EQ(wakes_, 1);
    table_->RunDue();
    table_->RunDue();
    EXPECT_EQ(starter_.starts, 1);
    EXPECT_EQ(table_->Check(kId, kClient), nullptr);
    EXPECT_TRUE(outcomes_.empty());

    const auto object = Register(1000);
    EXPECT_EQ(Load(), SAMGR_OK);  // served from memory, at once
    ASSERT_EQ(outcomes_.size(), 4U);
    for (const LoadOutcome& outcome : outcomes_) {
        EXPECT_EQ(outcome.error, SAMGR_OK);
        EXPECT_TRUE(outcome.object == object);
    }
    EXPECT_TRUE(table_->Check(kId, kClient) == object);
    EXPECT_EQ(table_->RunDue(), TimePoint::max());
    EXPECT_EQ(starter_.starts, 1);
}

TEST_F(SamgrTable, FailedStartsSayWhyAndLeaveNothingStarting)
{
    struct Case {
        const char* name;
        std::function<void()> fail;
        int32_t error;
        const char* reason;
    };
    const auto fastForward = [this](std::chrono::milliseconds time) {
        now_ += time;
        table_->RunDue();
    };
    const Case cases[] = {
        {"exit", [&] { End(LoadAndStart(), 0); }, SAMGR_PROGRAM_EXITED, "status 0"},
        {"signal", [&] { End(LoadAndStart(), SIGSEGV); }, SAMGR_PROGRAM_EXITED, "signal 11"},
        {"not executable",
            [&] {
                ProgramEnd end;
                end.startErrno = ENOEXEC;
                end.startStep = "executing it";
                table_->OnProgramEnd(LoadAndStart(), end);
            },
            SAMGR_PROGRAM_MISSING, "Exec format error"},
        {"slow",
            [&] {
                LoadAndStart();
                fastForward(4999ms);
                EXPECT_TRUE(outcomes_.empty());
                fastForward(1ms);
            },
            SAMGR_PROGRAM_SLOW, "in time"},
        {"missing",
            [&] {
                starter_.refusal = "there is no such program";
                LoadAndStart();
                starter_.refusal.clear();
            },
            SAMGR_PROGRAM_MISSING, "there is no such program"},
        {"stopping", [&] { LoadAndStart(), table_->Stop(); }, SAMGR_BUSY, "stopping"},
    };
    for (const Case& fault : cases) {
        SCOPED_TRACE(fault.name);
        outcomes_.clear();
        fault.fail();
        ASSERT_EQ(outcomes_.size(), 1U);
        EXPECT_EQ(outcomes_[0].error, fault.error);
        EXPECT_NE(outcomes_[0].reason.find(fault.reason), std::string::npos) << outcomes_[0].reason;
        EXPECT_EQ(table_->RunDue(), TimePoint::max());
    }
    EXPECT_EQ(starter_.killed.size(), 1U);  // the slow one
    EXPECT_EQ(Load(), SAMGR_BUSY);          // stopped
}

TEST_F(SamgrTable, DeadObjectIsNeverGivenOutAndTheNextInstanceTakesItsPlace)
{
    const auto first = Register(LoadAndStart());
    first->Die();
    EXPECT_EQ(table_->Check(kId, kClient), nullptr);
    const pid_t second = LoadAndStart();
    EXPECT_EQ(second, 1001);
    const auto next = Register(second);
    // Late words about the first must not touch the second.
    first->Notify();
    End(1000, SIGKILL);
    EXPECT_TRUE(table_->Check(kId, kClient) == next);

    End(second, SIGKILL);  // known from its process before its socket
    EXPECT_EQ(table_->Check(kId, kClient), nullptr);
}

TEST_F(SamgrTable, OnlyTheStartedProgramAndListedUsersMayRegister)
{
    const sptr<FakeProxy> object(new FakeProxy);
    const auto add = [&](pid_t pid, uid_t uid) { return table_->Add(kId, {pid, uid}, object); };
    EXPECT_EQ(add(60, kOtherUser), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(add(-1, static_cast<uid_t>(-1)), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(add(60, kServiceUser), SAMGR_OK);
    EXPECT_EQ(add(60, kServiceUser), SAMGR_OK);  // again the same
    EXPECT_EQ(add(61, kServiceUser), SAMGR_ALREADY_REGISTERED);
    EXPECT_EQ(table_->Add(kId + 1, {60, kServiceUser}, object), SAMGR_NO_PROFILE);
    EXPECT_EQ(table_->Add(kId, {60, kServiceUser}, nullptr), SAMGR_BAD_REQUEST);

    EXPECT_EQ(table_->Remove(kId, {61, kServiceUser}), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(table_->Remove(kId, {60, kServiceUser}), SAMGR_OK);
    EXPECT_FALSE(object->IsWatched());
    EXPECT_EQ(table_->Check(kId, kClient), nullptr);

    End(LoadAndStart(), 1);
    EXPECT_EQ(add(1000, kOtherUser), SAMGR_NOT_ALLOWED);  // ended: the number may be anybody's
}

TEST_F(SamgrTable, LookupAndLoadFollowTheProfileOfNow)
{
    const auto object = Register(LoadAndStart());
    Profile closed;
    closed.lookup.uids = {kServiceUser};
    UseProfile(closed);
    EXPECT_EQ(table_->Check(kId, kClient), nullptr);
    EXPECT_EQ(Load(), SAMGR_NOT_ALLOWED);
    EXPECT_TRUE(table_->Check(kId, {50, kServiceUser}) == object);
    table_->SetProfiles({});
    EXPECT_EQ(table_->Check(kId, {50, kServiceUser}), nullptr);
    EXPECT_EQ(Load(), SAMGR_NO_PROFILE);
}

TEST_F(SamgrTable, WaitingLoadsAreBounded)
{
    for (size_t load = 0; load < ServiceTable::kMaxWaitingLoads; ++load) {
        ASSERT_EQ(Load(), SAMGR_OK);
    }
    EXPECT_EQ(Load(), SAMGR_BUSY);
    table_->RunDue();
    Register(1000);
    EXPECT_EQ(outcomes_.size(), ServiceTable::kMaxWaitingLoads);
    EXPECT_EQ(Load(), SAMGR_OK);
}

TEST_F(SamgrTable, StartsWaitForServicesOfAFormerManager)
{
    table_ = sptr<ServiceTable>(new ServiceTable({&starter_, [this] { return now_; }, [] {}, now_ + 300ms}));
    UseProfile(Profile());
    LoadAndStart();
    EXPECT_EQ(starter_.starts, 0);
    EXPECT_EQ(table_->RunDue(), now_ + 300ms);
    EXPECT_EQ(table_->Add(kId, {60, kServiceUser}, sptr<FakeProxy>(new FakeProxy)), SAMGR_OK);
    now_ += 1s;
    EXPECT_EQ(table_->RunDue(), TimePoint::max());
    EXPECT_EQ(starter_.starts, 0);
    EXPECT_EQ(outcomes_.size(), 1U);
}

TEST_F(SamgrTable, CrashLoopIsSlowedUntilAProgramLives)
{
    // The wait before each start of a service that dies at once.
    const std::chrono::milliseconds waits[] = {
        0ms, 0ms, 0ms, 0ms, 0ms, 100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 3200ms};
    const auto crashAfterWait = [this](std::chrono::milliseconds wait, bool registers) {
        const int before = starter_.starts;
        ASSERT_EQ(Load(), SAMGR_OK);
        const TimePoint due = table_->RunDue();
        if (wait > 0ms) {
            ASSERT_EQ(due, now_ + wait);
            ASSERT_EQ(starter_.starts, before);
            now_ = due;
            table_->RunDue();
        }
        ASSERT_EQ(starter_.starts, before + 1);
        if (registers) {
            Register(999 + starter_.starts);
        }
        End(999 + starter_.starts, SIGABRT);
    };
    bool registers = false;
    for (const auto wait : waits) {
        SCOPED_TRACE(wait.count());
        crashAfterWait(wait, registers);
        registers = !registers;  // a crash right after the registration counts alike
    }
    now_ += 3200ms;
    const pid_t pid = LoadAndStart();
    Register(pid);
    now_ += 1s;
    End(pid, SIGABRT);
    crashAfterWait(0ms, true);
}

TEST_F(SamgrTable, KilledServicesAreNotSlowed)
{
    for (int round = 0; round < 500; ++round) {
        const pid_t pid = LoadAndStart();
        ASSERT_EQ(starter_.starts, round + 1);
        Register(pid)->Die();
        End(pid, SIGKILL);
    }
}

}  // namespace
}  // namespace VEXA::samgr
