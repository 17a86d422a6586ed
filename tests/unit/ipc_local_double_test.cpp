// SPDX-License-Identifier: Apache-2.0
// The doubles that other tests trust.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "vexa/ipc/ipc_errors.h"
#include "vexa/samgr/system_ability_load_callback_stub.h"
#include "vexa/samgr/system_ability_manager_client.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA {
namespace {

using Operation = ScriptedManager::Operation;

class Recipient : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>& object) override
    {
        died.push_back(object.Promote());
        thread = std::this_thread::get_id();
    }
    std::vector<sptr<IRemoteObject>> died;
    std::thread::id thread;
};

class LoadCallback : public SystemAbilityLoadCallbackStub {
public:
    void OnLoadSystemAbilitySuccess(int32_t, const sptr<IRemoteObject>& object) override { loaded.push_back(object); }
    void OnLoadSystemAbilityFail(int32_t) override { loaded.push_back(nullptr); }
    std::vector<sptr<IRemoteObject>> loaded;
};

TEST(ScriptedRemoteObjectTest, TellsEachRegistrationOfItsDeathOnceAndLateOnesAtOnce)
{
    sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    const sptr<Recipient> twice(new Recipient);
    const sptr<Recipient> removed(new Recipient);
    const sptr<Recipient> late(new Recipient);
    object->RefuseDeathRecipients(true);
    EXPECT_FALSE(object->AddDeathRecipient(twice));
    object->RefuseDeathRecipients(false);
    EXPECT_TRUE(object->AddDeathRecipient(twice) && object->AddDeathRecipient(twice));
    EXPECT_TRUE(object->AddDeathRecipient(removed) && object->RemoveDeathRecipient(removed));
    EXPECT_FALSE(object->RemoveDeathRecipient(removed));
    EXPECT_EQ(object->RecipientCount(), 2u);
    EXPECT_EQ(object->AddedCount(), 3u);

    object->Die();
    object->Die(ScriptedRemoteObject::NoticeThread::CALLER);
    EXPECT_EQ(twice->died, (std::vector<sptr<IRemoteObject>>{object, object}));
    EXPECT_NE(twice->thread, std::this_thread::get_id());
    EXPECT_TRUE(removed->died.empty());
    MessageParcel data;
    MessageOption option;
    EXPECT_EQ(object->SendRequest(1, data, data, option), IPC_DEAD_OBJECT);

    EXPECT_TRUE(object->AddDeathRecipient(late));
    twice->died.clear();
    object = nullptr;  // waits for the late notice
    EXPECT_EQ(late->died.size(), 1u);
}

TEST(InProcessManagerTest, FindsStartsAndRecords)
{
    const sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    const InProcessManager scripted;
    scripted->SetLoadable(5, object);
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    ASSERT_NE(manager, nullptr);
    std::string reason;
    EXPECT_EQ(manager->CheckSystemAbility(5), nullptr);
    EXPECT_EQ(manager->LoadSystemAbility(6, 2, &reason), nullptr);
    EXPECT_NE(reason, "");
    EXPECT_EQ(manager->LoadSystemAbility(5, 3), object);
    EXPECT_EQ(manager->CheckSystemAbility(5), object);
    object->Die();
    EXPECT_EQ(manager->CheckSystemAbility(5), nullptr);
    EXPECT_EQ(manager->LoadSystemAbility(5, 4), nullptr);
    EXPECT_EQ(scripted->Calls(),
        (std::vector<ScriptedManager::Call>{{Operation::CHECK, 5}, {Operation::LOAD, 6, 2}, {Operation::LOAD, 5, 3},
            {Operation::CHECK, 5}, {Operation::CHECK, 5}, {Operation::LOAD, 5, 4}}));
}

TEST(InProcessManagerTest, CallsBackUnlessHeldOrRefused)
{
    const sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    const sptr<LoadCallback> callback(new LoadCallback);
    const InProcessManager scripted;
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    scripted->SetLoadable(5, object);
    EXPECT_EQ(manager->LoadSystemAbility(5, callback), SAMGR_OK);
    scripted->WaitForCallbacks();
    EXPECT_EQ(callback->loaded, (std::vector<sptr<IRemoteObject>>{object}));

    scripted->HoldCallbacks(true);
    EXPECT_EQ(manager->LoadSystemAbility(6, callback), SAMGR_OK);
    scripted->WaitForCallbacks();
    EXPECT_EQ(callback->loaded.size(), 1u);
    scripted->ReleaseCallbacks();
    scripted->WaitForCallbacks();
    EXPECT_EQ(callback->loaded, (std::vector<sptr<IRemoteObject>>{object, nullptr}));

    scripted->SetAsyncResult(SAMGR_NO_PROFILE);
    EXPECT_EQ(manager->LoadSystemAbility(5, callback), SAMGR_NO_PROFILE);
    EXPECT_TRUE(scripted->TakeHeld().empty());
}

}  // namespace
}  // namespace VEXA
