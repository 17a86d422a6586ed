// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "daemon/manager_stub.h"
#include "daemon/service_table.h"
#include "registration.h"
#include "system_ability_manager_proxy.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA::samgr {
namespace {

using namespace std::chrono_literals;
using TimePoint = ServiceTable::TimePoint;

constexpr int32_t kId = 7;
constexpr uid_t kServiceUser = 500;
constexpr uid_t kOtherUser = 600;
const Caller kClient{50, kOtherUser};

// Can be dead while the notice, which Die sends, is still on its way.
class Proxy : public ScriptedRemoteObject {
public:
    bool IsObjectDead() const override { return isDead; }
    bool isDead = false;
};

class CountingStarter : public ProgramStarter {
public:
    pid_t Start(const Profile&, std::string&) override { return hasMemory ? 1000 + starts++ : throw std::bad_alloc(); }
    void Kill(pid_t pid) override { killed.push_back(pid); }
    std::string LastLine(pid_t) override { return lastLine; }

    int starts = 0;
    std::vector<pid_t> killed;
    std::string lastLine;
    bool hasMemory = true;
};

class SamgrTable : public testing::Test {
protected:
    SamgrTable() { UseProfile(Profile()); }

    void UseProfile(Profile profile, int32_t id = kId)
    {
        profile.id = id;
        profile.program = "service";
        profile.registrars.uids = {kServiceUser};
        profile.lookup.everyone = profile.lookup.uids.empty();
        table_->SetProfiles({std::make_shared<Profile>(profile)});
    }
    sptr<IRemoteObject> Check()
    {
        sptr<IRemoteObject> object;
        EXPECT_EQ(table_->Check(kId, kClient, object), SAMGR_OK);
        return object;
    }
    int32_t Load()
    {
        return table_->Load(kId, kClient, [this](const LoadOutcome& outcome) {
            table_->List(kClient);  // whoever is called may ask again
            outcomes_.push_back(outcome);
        });
    }
    // The pid of the program that a load has started.
    pid_t LoadAndStart()
    {
        EXPECT_EQ(Load(), SAMGR_OK);
        table_->RunDue();
        return 999 + starter_.starts;
    }
    sptr<Proxy> Register(pid_t pid)
    {
        sptr<Proxy> object(new Proxy);
        EXPECT_EQ(table_->Add(kId, {pid, kOtherUser}, object), SAMGR_OK);
        return object;
    }
    // By that signal or, up to 0, with its negative as its exit status.
    void End(pid_t pid, int how) { table_->OnProgramEnd(pid, {0, "", how > 0, std::abs(how)}); }

    TimePoint now_ = TimePoint() + 1000s;
    CountingStarter starter_;
    sptr<ServiceTable> table_{
        new ServiceTable({&starter_, [this] { return now_; }, [this] { table_->List(kClient); }, TimePoint()})};
    std::vector<LoadOutcome> outcomes_;
};

TEST_F(SamgrTable, LoadsOfOneServiceStartOneProgramAndAllGetItsObject)
{
    for (size_t load = 0; load < 1024; ++load) {
        ASSERT_EQ(Load(), SAMGR_OK);
    }
    EXPECT_EQ(Load(), SAMGR_BUSY);
    starter_.hasMemory = false;
    EXPECT_EQ(table_->RunDue(), now_ + 10ms) << "it is tried again";
    starter_.hasMemory = true;
    table_->RunDue();
    table_->RunDue();
    EXPECT_EQ(Check(), nullptr);
    EXPECT_TRUE(outcomes_.empty());

    End(1234, 1);  // of which it knows nothing
    const auto object = Register(1000);
    EXPECT_EQ(Load(), SAMGR_OK);  // served from memory, at once
    ASSERT_EQ(outcomes_.size(), 1025U);
    EXPECT_TRUE(std::ranges::all_of(outcomes_, [&](const LoadOutcome& one) { return one.object == object; }));
    EXPECT_TRUE(Check() == object);
    EXPECT_EQ(table_->RunDue(), TimePoint::max());
    EXPECT_EQ(starter_.starts, 1);
}

TEST_F(SamgrTable, FailedStartsLeaveNothingStarting)
{
    RecordingLogSink log(KOLOG_ERROR);
    const auto expectOutcome = [&](int32_t error, const std::string& reason = "") {
        EXPECT_FALSE(log.Messages().empty()) << error;
        log.Clear();
        ASSERT_TRUE(outcomes_.size() == 1 && outcomes_[0].error == error) << error;
        EXPECT_TRUE(reason.empty() || outcomes_[0].reason == reason) << outcomes_[0].reason;
        EXPECT_EQ(table_->RunDue(), TimePoint::max());
        outcomes_.clear();
    };
    End(LoadAndStart(), 0);
    expectOutcome(SAMGR_PROGRAM_EXITED, "service[1000] ended with status 0 before it registered");
    starter_.lastLine = std::string(199, 'x') + "\u00e9 and more";
    const pid_t slow = LoadAndStart();
    now_ += 4999ms;
    UseProfile(Profile(), kId + 1);
    EXPECT_EQ(table_->Load(kId + 1, kClient, [](const LoadOutcome&) {}), SAMGR_OK);
    EXPECT_EQ(table_->RunDue(), now_ + 1ms) << "the first of the two";
    EXPECT_TRUE(outcomes_.empty());
    End(slow + 1, 0);
    UseProfile(Profile());
    now_ += 1ms;
    table_->RunDue();
    expectOutcome(SAMGR_PROGRAM_SLOW, "process 1001 did not register in time and was ended: " + std::string(199, 'x'));
    starter_.lastLine = "it";
    EXPECT_EQ(starter_.killed, std::vector<pid_t>{slow});
    const pid_t next = LoadAndStart();
    End(slow, SIGKILL);
    EXPECT_TRUE(outcomes_.empty()) << "that was not the end of this one";
    End(next, 0);
    expectOutcome(SAMGR_PROGRAM_EXITED, "service[1003] ended with status 0 before it registered: it");
    Load();
    table_->SetProfiles({});
    table_->RunDue();
    expectOutcome(SAMGR_NO_PROFILE);
    UseProfile(Profile());
    LoadAndStart();
    table_->Stop();
    expectOutcome(SAMGR_BUSY);
    EXPECT_EQ(Load(), SAMGR_BUSY);
}

TEST_F(SamgrTable, DeadObjectIsNeverGivenOutAndTheNextInstanceTakesItsPlace)
{
    const auto first = Register(LoadAndStart());
    first->isDead = true;
    EXPECT_EQ(Check(), nullptr);
    const pid_t second = LoadAndStart();
    EXPECT_EQ(second, 1001);
    const auto next = Register(second);
    // Late words about the first must not touch the second.
    first->Die();
    End(1000, SIGKILL);
    EXPECT_TRUE(Check() == next);

    End(second, SIGKILL);  // known from its process before its socket
    EXPECT_EQ(Check(), nullptr);
}

TEST_F(SamgrTable, OnlyTheStartedProgramAndListedUsersMayRegister)
{
    const sptr<Proxy> object(new Proxy);
    const auto add = [&](pid_t pid, uid_t uid) { return table_->Add(kId, {pid, uid}, object); };
    EXPECT_EQ(add(60, kOtherUser), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(add(-1, static_cast<uid_t>(-1)), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(add(60, kServiceUser), SAMGR_OK);
    EXPECT_EQ(add(60, kServiceUser), SAMGR_OK);  // again the same
    EXPECT_EQ(add(61, kServiceUser), SAMGR_ALREADY_REGISTERED);
    EXPECT_EQ(object->RecipientCount(), 1U);
    EXPECT_EQ(table_->Add(kId, {60, kServiceUser}, nullptr), SAMGR_BAD_REQUEST);
    EXPECT_EQ(table_->Add(kId, {60, kServiceUser}, new ManagerStub(table_)), SAMGR_BAD_REQUEST) << "the manager's own";

    EXPECT_EQ(table_->Remove(kId, {61, kServiceUser}), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(table_->Remove(kId, {60, kServiceUser}), SAMGR_OK);
    EXPECT_EQ(object->RecipientCount(), 0U);
    EXPECT_EQ(Check(), nullptr);

    const pid_t program = LoadAndStart();
    UseProfile(Profile(), kId + 1);  // for which it was not started
    EXPECT_EQ(table_->Add(kId + 1, {program, kOtherUser}, object), SAMGR_NOT_ALLOWED);
    UseProfile(Profile());
    End(program, 1);
    EXPECT_EQ(add(program, kOtherUser), SAMGR_NOT_ALLOWED);  // ended: the number may be anybody's
    Profile open;
    open.registrars.everyone = true;
    UseProfile(open);
    EXPECT_EQ(add(-1, kOtherUser), SAMGR_OK);
    EXPECT_EQ(table_->Remove(kId, {-1, kOtherUser}), SAMGR_NOT_ALLOWED);  // another one that is not known
}

TEST_F(SamgrTable, LookupAndLoadFollowTheProfileOfNow)
{
    const auto object = Register(LoadAndStart());
    Profile closed;
    closed.lookup.uids = {kServiceUser};
    closed.lookup.gids = {70};
    UseProfile(closed);
    const auto isIn70 = [](gid_t group) { return group == 70; };
    const auto isIn71 = [](gid_t group) { return group == 71; };
    constexpr auto kUnknown = static_cast<uid_t>(-1);
    const std::pair<Caller, int32_t> cases[] = {{{50, kServiceUser}, SAMGR_OK}, {{50, kOtherUser, isIn70}, SAMGR_OK},
        {{50, kOtherUser, isIn71}, SAMGR_NOT_ALLOWED}, {kClient, SAMGR_NOT_ALLOWED},
        {{-1, kUnknown}, SAMGR_NOT_ALLOWED}};
    for (const auto& [caller, result] : cases) {
        sptr<IRemoteObject> found;
        EXPECT_EQ(table_->Check(kId, caller, found), result) << caller.uid;
        EXPECT_TRUE(found == (result == SAMGR_OK ? sptr<IRemoteObject>(object) : nullptr)) << caller.uid;
        EXPECT_EQ(table_->Load(kId, caller, [](const LoadOutcome&) {}), result) << caller.uid;
    }
    table_->SetProfiles({});
    sptr<IRemoteObject> none = object;
    EXPECT_EQ(table_->Check(kId, kClient, none), SAMGR_NO_PROFILE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(Load(), SAMGR_NO_PROFILE);
}

TEST_F(SamgrTable, TheListShowsWhoMayLookUpHowEachServiceStands)
{
    Profile closed;
    closed.uid = 30;
    closed.lookup.uids = {kServiceUser};
    UseProfile(closed);
    const sptr<IRemoteObject> manager(new ManagerStub(table_));
    const auto list = [&] {
        std::string listed;
        EXPECT_EQ(SystemAbilityManagerProxy(manager).ListSystemAbilities(listed), SAMGR_OK);
        return listed;
    };
    EXPECT_EQ(list() + table_->List(kClient), "[][]");
    closed.lookup.uids = {geteuid(), kOtherUser};
    UseProfile(closed);
    const auto expect = [&list](const std::string& process, const std::string& counts) {
        EXPECT_EQ(list(), R"([{"id":7,"program":"service","state":)" + process + "," + counts + "\"}]");
    };
    const std::string none = R"("idle","pid":null,"user":null)";
    Load();
    expect(R"("waiting","pid":null,"user":null)", R"("starts":0,"failures":0,"lastFailure":")");
    table_->RunDue();
    expect(R"("starting","pid":1000,"user":30)", R"("starts":1,"failures":0,"lastFailure":")");
    Register(1000);
    expect(R"("running","pid":1000,"user":600)", R"("starts":1,"failures":0,"lastFailure":")");
    starter_.lastLine = "it";
    End(1000, -3);
    expect(none, R"("starts":1,"failures":1,"lastFailure":"service[1000] ended with status 3: it)");
    End(LoadAndStart(), SIGKILL);
    const std::string killed = "service[1001] was ended by signal 9 (Killed) before it registered: it";
    expect(none, R"("starts":2,"failures":2,"lastFailure":")" + killed);
    Register(LoadAndStart());
    End(1002, 0);
    expect(none, R"("starts":3,"failures":2,"lastFailure":")" + killed);
}

TEST_F(SamgrTable, CrashLoopIsSlowedUntilAProgramLivesAndKilledProgramsAreNot)
{
    // A number of instances; for each the wait before the start, whether it registers, how long it lives, how it ends.
    const std::tuple<int, std::chrono::milliseconds, bool, std::chrono::milliseconds, int> rows[] = {
        {10, 0ms, false, 0ms, SIGKILL},  // to be killed is no crash
        {2, 0ms, false, 999ms, -9}, {2, 0ms, true, 999ms, SIGABRT}, {1, 0ms, true, 999ms, -9},
        {1, 100ms, false, 999ms, SIGABRT}, {1, 200ms, true, 999ms, -9}, {1, 400ms, false, 999ms, -9},
        {1, 800ms, true, 999ms, SIGABRT}, {1, 1600ms, false, 999ms, -9}, {2, 3200ms, true, 999ms, -9},
        {1, 3200ms, false, 6799ms, SIGABRT},  // the last death is not forgotten after 9,999 ms
        {1, 3200ms, false, 6800ms, SIGABRT}, {4, 0ms, false, 0ms, SIGABRT},
        {1, 100ms, true, 1s, SIGABRT},  // late enough
        {5, 0ms, false, 0ms, SIGABRT}};
    for (const auto& [times, wait, registers, lives, end] : rows) {
        for (int i = 0; i < times; ++i) {
            const pid_t pid = 1000 + starter_.starts;
            EXPECT_EQ(Load(), SAMGR_OK);
            EXPECT_EQ(table_->RunDue(), now_ + (wait > 0ms ? wait : 5s)) << pid;
            now_ += wait;
            table_->RunDue();
            ASSERT_EQ(pid, 999 + starter_.starts) << wait.count();
            if (registers) {
                Register(pid);
            }
            now_ += lives;
            End(pid, end);
        }
    }
}

TEST_F(SamgrTable, RequestsReachTheTableAndItsAnswersTheirCallers)
{
    const sptr<IRemoteObject> manager(new ManagerStub(table_));
    const sptr<Proxy> object(new Proxy);
    RecordingLogSink log(KOLOG_INFO);
    EXPECT_EQ(samgr::Register(manager, kId, object), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(samgr::Register(manager, kId + 1, object), SAMGR_NO_PROFILE);
    EXPECT_EQ(samgr::Register(manager, kId, nullptr), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(SystemAbilityManagerProxy(manager).CheckSystemAbility(kId + 1), nullptr);
    EXPECT_EQ(table_->Add(kId, {getpid(), kServiceUser}, object), SAMGR_OK);
    EXPECT_TRUE(SystemAbilityManagerProxy(manager).CheckSystemAbility(kId) == object);
    const sptr<ScriptedRemoteObject> callback(new ScriptedRemoteObject);
    callback->QueueAnswer(IPC_FAILED);
    callback->QueueAnswer(IPC_QUEUE_FULL);
    callback->QueueAnswer(IPC_DEAD_OBJECT);
    callback->QueueAnswer(IPC_FAILED);
    const std::u16string token = ISystemAbilityManager::GetDescriptor();
    const std::tuple<uint32_t, std::u16string, std::vector<sptr<IRemoteObject>>, int32_t> requests[] = {
        {6, token, {}, IPC_UNKNOWN_REQUEST}, {0, token, {}, IPC_UNKNOWN_REQUEST},
        {REMOVE_SYSTEM_ABILITY, token, {}, SAMGR_BAD_REQUEST},
        {REMOVE_SYSTEM_ABILITY, token + u"x", {nullptr}, SAMGR_BAD_REQUEST},
        {LOAD_SYSTEM_ABILITY, token, {manager}, SAMGR_BAD_REQUEST},  // one of its own objects
        {LOAD_SYSTEM_ABILITY, token, {nullptr}, SAMGR_BAD_REQUEST}, {LOAD_SYSTEM_ABILITY, token, {callback}, SAMGR_OK},
        {LOAD_SYSTEM_ABILITY, token, {callback}, SAMGR_OK}};
    for (const auto& [code, name, receivers, result] : requests) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        EXPECT_TRUE(data.WriteInterfaceToken(name));
        for (const sptr<IRemoteObject>& receiver : receivers) {
            EXPECT_TRUE(data.WriteInt32(kId) && data.WriteRemoteObject(receiver));
        }
        EXPECT_EQ(manager->SendRequest(code, data, reply, option), result) << code;
    }
    EXPECT_EQ(samgr::Register(manager, kId, nullptr), SAMGR_OK);
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    EXPECT_TRUE(WriteHead(data, kId) && data.WriteRemoteObject(callback));
    EXPECT_EQ(manager->SendRequest(LOAD_SYSTEM_ABILITY, data, reply, option), SAMGR_OK);
    table_->Stop();
    table_->Stop();  // which is nothing more
    const auto refused = [](const std::string& request, const char* reason) {
        const std::string caller = " for process " + std::to_string(getpid()) + ", user " + std::to_string(geteuid());
        return RecordedMessage{KOLOG_WARN, "", request + caller + ", is refused: " + reason};
    };
    const char* const notAllowed = "its profile does not let this user do that";
    const auto notice = [](const std::string& text) { return RecordedMessage{KOLOG_INFO, "", text}; };
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(log.Messages(),
        (std::vector{refused("registration of service 7", notAllowed),
            refused("registration of service 8", "no profile names it"), refused("removal of service 7", notAllowed),
            refused("lookup of service 8", "no profile names it"),
            {KOLOG_ERROR, "", "lookup of service 8 failed: no profile names it (2)"},
            notice("service 7 is registered by process " + self),
            refused("load of service 7", "the request makes no sense"),
            refused("load of service 7", "the request makes no sense"),
            {KOLOG_WARN, "", "the outcome of a load of service 7 was not delivered: " + std::to_string(IPC_QUEUE_FULL)},
            notice("service 7 is withdrawn by process " + self),
            {KOLOG_ERROR, "", "service 7: the manager is stopping"},
            {KOLOG_WARN, "", "the outcome of a load of service 7 was not delivered: " + std::to_string(IPC_FAILED)}}));
    std::vector<sptr<IRemoteObject>> handed;
    for (const auto& request : callback->Requests()) {
        EXPECT_EQ(request.flags, MessageOption::TF_ASYNC);
        request.data->ReadInterfaceToken();
        request.data->ReadInt32();
        handed.push_back(request.code == LOAD_SUCCEEDED ? request.data->ReadRemoteObject() : manager);
    }
    EXPECT_EQ(handed, (decltype(handed){object, nullptr, object, manager}))
        << "what can't be handed over is to be asked for again";
    EXPECT_EQ(Check(), nullptr);
}

}  // namespace
}  // namespace VEXA::samgr
