// SPDX-License-Identifier: Apache-2.0
// The client's side of a load, against a manager that is a script in this process.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "pending_load.h"
#include "samgr_fakes.h"
#include "vexa/samgr/system_ability_load_callback_stub.h"

namespace VEXA::samgr {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr int32_t kId = 7;

// Answers each load request with what the script returns for its number.
class ScriptedManager : public FakeProxy {
public:
    using Script = std::function<int32_t(int request, const sptr<IRemoteObject>& callback)>;
    explicit ScriptedManager(Script script) : script_(std::move(script)) {}

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel&, MessageOption&) override
    {
        EXPECT_EQ(code, LOAD_SYSTEM_ABILITY);
        EXPECT_EQ(data.ReadInterfaceToken(), ISystemAbilityManager::GetDescriptor());
        EXPECT_EQ(data.ReadInt32(), kId);
        return script_(requests++, data.ReadRemoteObject());
    }

    int requests = 0;

private:
    const Script script_;
};

int32_t Report(const sptr<IRemoteObject>& callback, const LoadOutcome& outcome)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_ASYNC);
    EXPECT_TRUE(WriteLoadOutcome(outcome, data));
    return callback->SendRequest(LoadOutcomeCode(outcome), data, reply, option);
}

class SamgrLoad : public testing::Test {
protected:
    sptr<PendingLoad> Make(const sptr<ScriptedManager>& manager, std::chrono::milliseconds limit = 2000ms)
    {
        return sptr<PendingLoad>(new PendingLoad(manager, kId, steady_clock::now() + limit,
            [this](const LoadOutcome& outcome) { outcomes_.push_back(outcome); }));
    }
    std::vector<LoadOutcome> outcomes_;
};

TEST_F(SamgrLoad, AnObjectKnownToBeDeadIsAskedForAgain)
{
    const sptr<FakeProxy> corpse(new FakeProxy);
    const sptr<FakeProxy> living(new FakeProxy);
    corpse->Die();
    const sptr<ScriptedManager> manager(new ScriptedManager([&](int request, const sptr<IRemoteObject>& callback) {
        const sptr<IRemoteObject> object = request < 3 ? corpse : living;
        return Report(callback, {kId, SAMGR_OK, object, {}});
    }));
    ASSERT_EQ(Make(manager)->Ask(), SAMGR_OK);
    ASSERT_EQ(outcomes_.size(), 1U);
    EXPECT_TRUE(outcomes_[0].object == living);
    EXPECT_EQ(manager->requests, 4);
}

TEST_F(SamgrLoad, AManagerThatNeverNoticesADeathMakesTheLoadFailInTime)
{
    const sptr<FakeProxy> corpse(new FakeProxy);
    corpse->Die();
    const sptr<ScriptedManager> manager(new ScriptedManager([&](int, const sptr<IRemoteObject>& callback) {
        return Report(callback, {kId, SAMGR_OK, corpse, {}});
    }));
    const auto start = steady_clock::now();
    ASSERT_EQ(Make(manager, 60ms)->Ask(), SAMGR_OK);
    EXPECT_LT(steady_clock::now() - start, 1s);
    ASSERT_EQ(outcomes_.size(), 1U);
    EXPECT_EQ(outcomes_[0].object, nullptr);
    EXPECT_EQ(outcomes_[0].error, IPC_TIMED_OUT);
}

TEST_F(SamgrLoad, TheReasonOfAFailureArrives)
{
    const sptr<ScriptedManager> manager(new ScriptedManager([](int, const sptr<IRemoteObject>& callback) {
        return Report(callback, {kId, SAMGR_PROGRAM_EXITED, nullptr, "it ended"});
    }));
    ASSERT_EQ(Make(manager)->Ask(), SAMGR_OK);
    ASSERT_EQ(outcomes_.size(), 1U);
    EXPECT_EQ(outcomes_[0].error, SAMGR_PROGRAM_EXITED);
    EXPECT_EQ(outcomes_[0].reason, "it ended");
}

TEST_F(SamgrLoad, TheManagersDeathIsTheOutcomeUnlessThereWasOne)
{
    sptr<IRemoteObject> callback;
    const sptr<ScriptedManager> manager(new ScriptedManager([&](int, const sptr<IRemoteObject>& given) {
        callback = given;
        return SAMGR_OK;
    }));
    const auto lost = Make(manager);
    ASSERT_EQ(lost->Ask(), SAMGR_OK);
    lost->FailWithManager();
    manager->Notify();
    ASSERT_EQ(outcomes_.size(), 1U);
    EXPECT_EQ(outcomes_[0].error, IPC_DEAD_OBJECT);
    Report(callback, {kId, SAMGR_PROGRAM_SLOW, nullptr, "late"});
    EXPECT_EQ(outcomes_.size(), 1U);

    const auto answered = Make(manager);
    ASSERT_EQ(answered->Ask(), SAMGR_OK);
    answered->FailWithManager();
    Report(callback, {kId, SAMGR_PROGRAM_SLOW, nullptr, "slow"});
    EXPECT_FALSE(manager->IsWatched());
    EXPECT_EQ(outcomes_.size(), 2U);
    answered->FailWithManager();  // as when the outcome overtakes the answer to the request
    EXPECT_FALSE(manager->IsWatched());

    const auto abandoned = Make(manager);
    ASSERT_EQ(abandoned->Ask(), SAMGR_OK);
    abandoned->Abandon();
    Report(callback, {kId, SAMGR_PROGRAM_SLOW, nullptr, "slow"});
    EXPECT_EQ(outcomes_.size(), 2U);
}

class RecordingCallback : public SystemAbilityLoadCallbackStub {
public:
    void OnLoadSystemAbilitySuccess(int32_t id, const sptr<IRemoteObject>& object) override
    {
        calls += "success " + std::to_string(id) + (object != nullptr ? " object;" : " null;");
    }
    void OnLoadSystemAbilityFail(int32_t id) override { calls += "fail " + std::to_string(id) + ";"; }
    void OnLoadSACompleteForRemote(const std::string& device, int32_t id, const sptr<IRemoteObject>& object) override
    {
        calls += device + " " + std::to_string(id) + (object != nullptr ? " object;" : " null;");
    }
    std::string calls;
};

TEST(SamgrLoadCallback, RequestsBecomeCallsAndBadOnesDoNot)
{
    const sptr<RecordingCallback> callback(new RecordingCallback);
    const sptr<FakeProxy> object(new FakeProxy);
    EXPECT_EQ(Report(callback, {1, SAMGR_OK, object, {}}), 0);
    EXPECT_EQ(Report(callback, {2, SAMGR_OK, nullptr, {}}), 0);
    EXPECT_EQ(Report(callback, {3, SAMGR_PROGRAM_SLOW, nullptr, "slow"}), 0);
    const auto send = [&](uint32_t code, const std::function<void(MessageParcel&)>& fill) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        fill(data);
        return callback->SendRequest(code, data, reply, option);
    };
    const auto token = [](MessageParcel& data) {
        data.WriteInterfaceToken(ISystemAbilityLoadCallback::GetDescriptor());
    };
    EXPECT_EQ(send(LOADED_FROM_DEVICE,
                  [&](MessageParcel& data) {
                      token(data);
                      data.WriteString("device");
                      data.WriteInt32(4);
                      data.WriteRemoteObject(object);
                  }),
        0);
    EXPECT_EQ(callback->calls, "success 1 object;success 2 null;fail 3;device 4 object;");

    callback->calls.clear();
    EXPECT_EQ(
        send(LOAD_SUCCEEDED, [](MessageParcel& data) { data.WriteInterfaceToken(u"another"); }), SAMGR_BAD_REQUEST);
    for (const uint32_t code : {LOAD_SUCCEEDED, LOAD_FAILED, LOADED_FROM_DEVICE}) {
        EXPECT_EQ(send(code, token), SAMGR_BAD_REQUEST);
    }
    EXPECT_EQ(send(99, token), IPC_UNKNOWN_REQUEST);
    EXPECT_EQ(callback->calls, "");
}

}  // namespace
}  // namespace VEXA::samgr
