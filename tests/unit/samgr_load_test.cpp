// SPDX-License-Identifier: Apache-2.0
// The client's side: its loads, and its services with a next manager. The manager is a script in this process.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <thread>

#include "own_services.h"
#include "pending_load.h"
#include "system_ability_manager_proxy.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/samgr/system_ability_load_callback_stub.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/refusing_parcels.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA::samgr {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr int32_t kId = 7;

int32_t Send(const sptr<IRemoteObject>& callback, uint32_t code, MessageParcel& data)
{
    MessageParcel reply;
    MessageOption option(MessageOption::TF_ASYNC);
    return callback->SendRequest(code, data, reply, option);
}

int32_t Report(const sptr<IRemoteObject>& callback, const LoadOutcome& outcome)
{
    MessageParcel data;
    EXPECT_TRUE(WriteLoadOutcome(outcome, data));
    return Send(callback, LoadOutcomeCode(outcome), data);
}

class Callback : public SystemAbilityLoadCallbackStub {
public:
    void OnLoadSystemAbilitySuccess(int32_t id, const sptr<IRemoteObject>&) override { Tell("there", id); }
    void OnLoadSystemAbilityFail(int32_t id) override { Tell("failed", id); }
    void OnLoadSACompleteForRemote(const std::string& at, int32_t id, const sptr<IRemoteObject>&) override
    {
        Tell(at, id);
    }
    void Tell(const std::string& what, int32_t id) { told += what + " " + std::to_string(id) + ";"; }
    std::string told;
};

class SamgrLoad : public testing::Test {
protected:
    SamgrLoad()
    {
        corpse_->Die();
        manager_->SetHandler([this](uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) {
            EXPECT_EQ(data.ReadInterfaceToken(), ISystemAbilityManager::GetDescriptor());
            EXPECT_EQ(data.ReadInt32(), kId);
            callback_ = data.ReadRemoteObject();
            reply.WriteRemoteObject(corpse_);
            if (isLate_) {
                answer_ = std::jthread([this, callback = callback_] {
                    std::this_thread::sleep_for(5ms);
                    Report(callback, {kId, SAMGR_OK, living_, {}});
                });
            }
            const bool isDead = corpses_-- > 0;
            return code == LOAD_SYSTEM_ABILITY && answers_
                       ? Report(callback_, {kId, SAMGR_OK, isDead ? corpse_ : living_, {}})
                       : int32_t{SAMGR_OK};
        });
    }
    ~SamgrLoad() override { manager_->ClearRequests(); }
    sptr<PendingLoad> Ask(std::chrono::milliseconds limit = 2000ms)
    {
        sptr<PendingLoad> load(new PendingLoad(manager_, kId, steady_clock::now() + limit,
            [this](const LoadOutcome& outcome) { outcomes_.push_back(outcome); }));
        EXPECT_EQ(load->Ask(), SAMGR_OK);
        return load;
    }

    const sptr<ScriptedRemoteObject> manager_{new ScriptedRemoteObject};
    const sptr<ScriptedRemoteObject> corpse_{new ScriptedRemoteObject};
    const sptr<ScriptedRemoteObject> living_{new ScriptedRemoteObject};
    bool answers_ = true;
    int corpses_ = 0;  // that many answers have the dead object
    sptr<IRemoteObject> callback_;
    std::vector<LoadOutcome> outcomes_;
    bool isLate_ = false;  // an answer comes while it is waited for
    std::jthread answer_;
};

TEST_F(SamgrLoad, AnObjectKnownToBeDeadIsAskedForAgainUntilTheDeadline)
{
    corpses_ = 12;
    const auto start = steady_clock::now();
    Ask();
    const auto took = steady_clock::now() - start;
    EXPECT_TRUE(took >= 171ms && took < 900ms);  // pauses of 1, 2, 4, 8, 16, and then 20 ms
    corpses_ = 1000;                             // a manager that never notices
    Ask(60ms);
    ASSERT_EQ(outcomes_.size(), 2U);
    EXPECT_TRUE(outcomes_[0].object == living_);
    EXPECT_EQ(outcomes_[1].error, IPC_TIMED_OUT);
}

TEST_F(SamgrLoad, ThereIsOneOutcomeAndNoneForTheAbandoned)
{
    answers_ = false;
    const auto abandoned = Ask();
    Report(callback_, {kId, SAMGR_OK, corpse_, {}});
    EXPECT_TRUE(outcomes_.empty()) << "it was asked for again";
    abandoned->Abandon();
    Report(callback_, {kId, SAMGR_OK, corpse_, {}});
    Report(callback_, {kId, SAMGR_PROGRAM_SLOW, nullptr, "abandoned"});
    EXPECT_TRUE(outcomes_.empty() && manager_->Requests().size() == 2);

    const auto answered = Ask();
    const std::u16string token = ISystemAbilityLoadCallback::GetDescriptor();
    const sptr<Callback> other(new Callback);
    const std::tuple<sptr<IRemoteObject>, std::u16string, uint32_t, std::vector<int32_t>, int32_t> requests[] = {
        {callback_, token + u"x", LOAD_FAILED, {kId, SAMGR_PROGRAM_SLOW, 0, 0}, SAMGR_BAD_REQUEST},
        {callback_, token, LOAD_FAILED, {kId, SAMGR_OK, 0, 0}, SAMGR_BAD_REQUEST},
        {other, token, LOADED_FROM_DEVICE, {0, 0}, SAMGR_BAD_REQUEST}, {other, token, 4, {}, IPC_UNKNOWN_REQUEST},
        {callback_, token, LOAD_SUCCEEDED, {}, SAMGR_BAD_REQUEST},
        {other, token, LOAD_SUCCEEDED, {}, SAMGR_BAD_REQUEST},
        {other, token, LOADED_FROM_DEVICE, {5}, SAMGR_BAD_REQUEST},
        {other, token, LOADED_FROM_DEVICE, {0, 0, 3}, SAMGR_OK},
        {other, token, LOAD_FAILED, {4, SAMGR_BUSY, 0, 0}, SAMGR_OK}, {other, token, LOAD_SUCCEEDED, {5}, SAMGR_OK},
        {other, token + u"x", 4, {}, SAMGR_BAD_REQUEST}};
    for (const auto& [receiver, name, code, words, result] : requests) {
        MessageParcel data;
        data.WriteInterfaceToken(name);
        std::ranges::for_each(words, [&](int32_t word) { data.WriteInt32(word); });
        EXPECT_EQ(Send(receiver, code, data), result) << code;
    }
    EXPECT_EQ(other->told, " 3;failed 4;there 5;");
    answered->FailWithManager();
    Report(callback_, {kId + 1, SAMGR_PROGRAM_SLOW, nullptr, "slow"});
    answered->FailWithManager();  // as when the outcome overtakes the answer to the request
    EXPECT_EQ(manager_->RecipientCount(), 0U);

    const auto lost = Ask();
    lost->FailWithManager();
    manager_->Die();
    Report(callback_, {kId, SAMGR_PROGRAM_SLOW, nullptr, "late"});
    ASSERT_EQ(outcomes_.size(), 2U);
    EXPECT_TRUE(outcomes_[0].systemAbilityId == kId && outcomes_[0].reason == "slow");
    EXPECT_EQ(outcomes_[1].error, IPC_DEAD_OBJECT);
}

TEST_F(SamgrLoad, NothingIsWaitedForLongerThanItsLimit)
{
    SystemAbilityManagerProxy manager(manager_);
    EXPECT_EQ(manager.CheckSystemAbility(kId), nullptr);
    EXPECT_EQ(manager.AddSystemAbility(kId, living_), SAMGR_OK);
    EXPECT_EQ(manager.RemoveSystemAbility(kId), SAMGR_OK);
    EXPECT_TRUE(manager.LoadSystemAbility(kId, 20, nullptr) == living_);
    const sptr<Callback> callback(new Callback);
    EXPECT_EQ(manager.LoadSystemAbility(kId, callback), SAMGR_OK);
    answers_ = false;
    std::string reason;
    auto start = steady_clock::now();
    EXPECT_EQ(manager.LoadSystemAbility(kId, 0, &reason), nullptr);
    const auto took = steady_clock::now() - start;
    EXPECT_TRUE(took >= 1s && took < 2s && reason == "not there within 1 s") << reason;
    Ask(0ms);
    const RecordingLogSink log;
    EXPECT_EQ(manager.LoadSystemAbility(kId, callback), SAMGR_OK);
    Report(callback_, {kId, SAMGR_PROGRAM_SLOW, nullptr, "slow"});
    EXPECT_EQ(log.Messages().at(0).text + ";" + callback->told, "load of service 7 failed: slow;there 7;failed 7;");
    std::vector<std::pair<uint32_t, int32_t>> waits;  // seconds, by request
    for (const auto& request : manager_->Requests()) {
        waits.emplace_back(request.code, request.waitTime);
    }
    EXPECT_EQ(waits, (decltype(waits){{CHECK_SYSTEM_ABILITY, 8}, {ADD_SYSTEM_ABILITY, 8}, {REMOVE_SYSTEM_ABILITY, 8},
                         {LOAD_SYSTEM_ABILITY, 8}, {LOAD_SYSTEM_ABILITY, 5}, {LOAD_SYSTEM_ABILITY, 1},
                         {LOAD_SYSTEM_ABILITY, 1}, {LOAD_SYSTEM_ABILITY, 5}}));

    // The outcome wakes the thread; to look whether the manager lives it would wake after 50 ms.
    isLate_ = true;
    steady_clock::duration quickest = 20s;
    for (int load = 0; load < 5; ++load) {
        start = steady_clock::now();
        EXPECT_TRUE(manager.LoadSystemAbility(kId, 20, nullptr) == living_);
        quickest = std::min(quickest, steady_clock::now() - start);
    }
    EXPECT_LT(quickest, 45ms);

    manager_->SetHandler([this](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
        manager_->Die();
        return SAMGR_OK;
    });
    start = steady_clock::now();
    EXPECT_EQ(manager.LoadSystemAbility(kId, 20, &reason), nullptr);
    EXPECT_LT(steady_clock::now() - start, 400ms);
    EXPECT_EQ(reason, "the manager has ended");
}

// Each request is whole or not sent at all, and the log says what became of it.
TEST_F(SamgrLoad, RefusalsAreReturnedAndLogged)
{
    constexpr int32_t kNone = -1;
    SystemAbilityManagerProxy manager(manager_);
    const sptr<Callback> callback(new Callback);
    std::string text;
    const std::pair<std::function<int32_t()>, const char*> operations[] = {
        {[&] { return manager.CheckSystemAbility(kId) ? 0 : kNone; }, "lookup of service 7 failed: "},
        {[&] { return manager.LoadSystemAbility(kId, 2, &text) ? 0 : kNone; }, "load of service 7 failed: "},
        {[&] { return manager.LoadSystemAbility(kId, callback); }, "load of service 7 is refused: "},
        {[&] { return manager.RemoveSystemAbility(kId); }, nullptr},
        {[&] { return manager.AddSystemAbility(kId, living_); }, "service 7 is not registered: "},
        {[&] { return manager.ListSystemAbilities(text); }, "the services can't be listed: "}};
    manager_->SetHandler([](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) { return SAMGR_NOT_ALLOWED; });
    manager.RemoveSystemAbility(kId);  // the first starts the transport, which has lines of its own
    for (const auto& [ask, line] : operations) {
        manager_->ClearRequests();
        // Without a limit, and then with one more byte each time.
        for (size_t room = 999; manager_->Requests().size() < 2; room = (room + 1) % 1000) {
            const RefusingParcels refusing(room);
            const size_t sent = manager_->Requests().size();
            const RecordingLogSink log;
            const int32_t returned = ask();
            const int32_t result = manager_->Requests().size() > sent ? int32_t{SAMGR_NOT_ALLOWED} : IPC_FAILED;
            EXPECT_TRUE(returned == result || returned == kNone) << returned << line;
            const auto lines = log.Messages();
            EXPECT_EQ(lines.size(), line != nullptr ? 1U : 0U);
            EXPECT_TRUE(lines.empty() || lines[0].text.starts_with(line + std::string(ResultText(result)))) << line;
        }
        EXPECT_EQ(manager_->Requests()[0].data->GetDataSize(), manager_->Requests()[1].data->GetDataSize());
    }
    EXPECT_EQ(text, ResultText(SAMGR_NOT_ALLOWED));
    EXPECT_EQ(OwnServices::Get().Replace(kId, nullptr), nullptr);  // nothing is left to tell the next manager of
    EXPECT_EQ(manager.LoadSystemAbility(kId, sptr<ISystemAbilityLoadCallback>()), SAMGR_BAD_REQUEST);
    EXPECT_EQ(manager.AddSystemAbility(kId, nullptr), SAMGR_BAD_REQUEST);
    manager_->QueueAnswer(SAMGR_OK);
    EXPECT_EQ(manager.ListSystemAbilities(text), IPC_FAILED) << "without a list";
}

// Otherwise a new manager would keep what the service has just withdrawn from it.
TEST(OwnServicesTest, WhatChangesWhileAManagerIsToldIsToldAgain)
{
    const sptr<IRemoteObject> first(new IPCObjectStub);
    const sptr<IRemoteObject> second(new IPCObjectStub);
    std::vector<std::pair<int32_t, sptr<IRemoteObject>>> told;
    OwnServices* own = nullptr;
    OwnServices services([&](int32_t id, const sptr<IRemoteObject>& object) {
        told.emplace_back(id, object);
        if (object == first) {
            own->Replace(id, id == 1 ? nullptr : second);
        }
        return SAMGR_OK;
    });
    own = &services;
    EXPECT_EQ(services.Replace(1, first), nullptr);
    services.Replace(2, first);
    services.Replace(3, second);
    services.TellAll();
    const decltype(told) expected{{1, first}, {1, nullptr}, {2, first}, {2, second}, {3, second}};
    EXPECT_EQ(told, expected);
    EXPECT_EQ(services.Replace(1, nullptr), nullptr) << "it was withdrawn for good";
}

// The first attempts may reach the old manager, whose end is not known yet.
TEST(OwnServicesTest, AManagerThatCanNotBeReachedIsToldAgainButNotForEver)
{
    const std::array<int32_t, 3> cases[] = {// error, how often, attempts
        {IPC_DEAD_OBJECT, 10, 11}, {IPC_CONNECTION_LOST, 10, 11}, {IPC_DEAD_OBJECT, 99, 20}, {SAMGR_BUSY, 99, 1}};
    for (const auto& [error, failures, expected] : cases) {
        int told = 0;
        OwnServices services([&told, error = error, failures = failures](int32_t, const sptr<IRemoteObject>&) {
            return ++told <= failures ? error : int32_t{SAMGR_OK};
        });
        services.Replace(1, sptr<IRemoteObject>(new IPCObjectStub));
        RecordingLogSink log;
        const auto start = steady_clock::now();
        services.TellAll();
        const auto took = steady_clock::now() - start;
        EXPECT_EQ(told, expected) << error;
        const RecordedMessage line{
            KOLOG_WARN, "", std::string("the new manager was not told of service 1: ") + ResultText(error)};
        EXPECT_EQ(log.Messages(), std::vector(failures == 99 ? 1 : 0, line));
        EXPECT_TRUE(took >= (expected - 1) * 10ms && took < 1s);
    }
    const auto start = steady_clock::now();
    OwnServices::Get().Replace(kId, new IPCObjectStub);
    OwnServices::Get().TellAll();
    EXPECT_GE(steady_clock::now() - start, 190ms) << "there is no manager";
    OwnServices::Get().Replace(kId, nullptr);
}

}  // namespace
}  // namespace VEXA::samgr
