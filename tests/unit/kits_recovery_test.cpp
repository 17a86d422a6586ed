// SPDX-License-Identifier: Apache-2.0
#include <future>

#include "kits_fixture.h"
#include "lookup_lock.h"
#include "migrate_server_kits_impl.h"
#include "worker_pool.h"

namespace VEXA::UpdateEngine {
namespace {

using ManagerCalls = std::vector<ScriptedManager::Call>;
const ScriptedManager::Call CHECK{ScriptedManager::Operation::CHECK, 65792, 0};
const ScriptedManager::Call LOAD{ScriptedManager::Operation::LOAD, 65792, 5};

class KitsRecoveryTest : public KitsTest {
protected:
    // The object that the n-th request, which is a registration, carried.
    static sptr<IRemoteObject> Carried(const sptr<ScriptedRemoteObject>& service, size_t n)
    {
        const auto request = service->Requests().at(n);
        EXPECT_EQ(request.code, 9U);
        request.data->RewindRead();
        request.data->ReadInterfaceToken();
        return request.data->ReadRemoteObject();
    }

    const std::unique_ptr<MigrateServerKitsImpl> made_ = MigrateServerKitsImpl::Make();
    MigrateServerKitsImpl& kits_ = *made_;
};

TEST_F(KitsRecoveryTest, LookupStartsTheServiceOnceKeepsItAndSurvivesEveryGap)
{
    const sptr<ScriptedRemoteObject> service = PrepareService();
    const ExpectedLog log;
    EXPECT_EQ(kits_.GetService()->AsObject(), service);
    EXPECT_EQ(kits_.GetService(), kits_.GetService());
    EXPECT_EQ(manager_->Calls(), (ManagerCalls{CHECK, LOAD}));
    kits_.DoReset();
    kits_.GetService();
    EXPECT_EQ(manager_->Calls(), (ManagerCalls{CHECK, LOAD, CHECK}));

    kits_.DoReset();
    service->RefuseDeathRecipients(true);
    kits_.AddDeathRecipient(nullptr);
    EXPECT_NE(kits_.GetService(), nullptr);
    service->RefuseDeathRecipients(false);
    kits_.AddDeathRecipient(service);  // a refused watch isn't repeated
    kits_.DoReset();
    kits_.AddDeathRecipient(service);
    const UnreachableManager none;
    EXPECT_EQ(kits_.GetService(), nullptr);
    CommonDeathRecipient(nullptr).OnRemoteDied(nullptr);
}

// The lock of the lookup is nobody's in a child that is forked meanwhile.
TEST_F(KitsRecoveryTest, ConcurrentFirstRequestsShareOneLookupAndAForkedChildIsRefusedAtOnce)
{
    const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
    std::thread other;
    manager_->OnCheck([&](int32_t) {
        ExpectInForkedChild([&] {
            kits_.AddDeathRecipient(service);
            return kits_.On({}) == 104 && kits_.On({}) == 104 && service->AddedCount() == 0;
        });
        other = std::thread([&] { EXPECT_EQ(kits_.On({}), 0); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return service;
    });
    EXPECT_EQ(kits_.On({}), 0);
    other.join();
    EXPECT_EQ(manager_->Calls(), ManagerCalls{CHECK});
}

TEST_F(KitsRecoveryTest, DeathRegistersTheLastCallbackWithTheNextInstance)
{
    const ExpectedLog log;
    const sptr<ScriptedRemoteObject> first = RunService();
    EXPECT_EQ(kits_.On({}) + kits_.On({}), 0);
    first->QueueAnswer(2001);
    EXPECT_EQ(kits_.On({}), 1);  // a failed one doesn't count
    const sptr<ScriptedRemoteObject> second = PrepareService();
    second->QueueAnswer(2005);
    first->Die();

    // Whatever fails, the callback stays for the next attempt.
    second->Die();
    const sptr<ScriptedRemoteObject> third = RunService();
    {
        const RefusingParcels refusing;
        kits_.ResumeRegisterCallback();
    }
    const sptr<ScriptedRemoteObject> fourth = PrepareService();
    third->Die();
    EXPECT_NE(Carried(first, 0), Carried(first, 1));
    EXPECT_EQ(Carried(second, 0), Carried(first, 1));
    EXPECT_EQ(Carried(fourth, 0), Carried(first, 1));
}

TEST_F(KitsRecoveryTest, OffForgetsTheCallbackOnceItIsSentAndADeathThenStartsNothing)
{
    const ExpectedLog log;
    const sptr<ScriptedRemoteObject> first = RunService();
    kits_.On({});
    {
        const RefusingParcels refusing;
        EXPECT_EQ(kits_.Off(), 104);
    }
    const sptr<ScriptedRemoteObject> second = PrepareService();
    first->Die();
    EXPECT_EQ(Carried(second, 0), Carried(first, 0));
    second->QueueAnswer(2004);
    EXPECT_EQ(kits_.Off(), 4);
    PrepareService();
    second->Die();
    BusinessError error;
    EXPECT_EQ(kits_.StartMigrate(error), 0);
    EXPECT_EQ(kits_.On({}) + kits_.Off(), 0);
    kits_.ResumeRegisterCallback();
}

// The service answers On and dies before the client has stored the callback: not the death handler, but On recovers.
TEST_F(KitsRecoveryTest, DeathDuringOnIsNotMissed)
{
    const ExpectedLog log;
    const sptr<ScriptedRemoteObject> first = RunService();
    const sptr<ScriptedRemoteObject> second = PrepareService();
    first->SetHandler([&](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
        first->Die();
        return 0;
    });
    EXPECT_EQ(kits_.On({}), 0);
    EXPECT_EQ(Carried(second, 0), Carried(first, 0));
}

// The outcome of a lookup comes as a request, for which a worker is left however few there are.
TEST(LookupLockTest, AWorkerThatWaitsForALookupIsReplaced)
{
    static auto& workers = *new ipc::WorkerPool([](const char*, const std::function<void()>& body) {
        std::thread(body).detach();
        return true;
    });
    static Mutex mutex(LockRank::KitsService);
    static std::promise<void> outcome;
    EXPECT_TRUE(workers.Open());
    workers.SetLimit(1);
    MutexLock lookup(mutex);
    workers.Post([] { const LookupLock lock(mutex); });
    workers.Post([] { outcome.set_value(); });
    EXPECT_EQ(outcome.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

// When two requests overlap, it is not known which of them the service has heard last.
TEST_F(KitsRecoveryTest, WhatOverlapsWithARecoveryIsToldAgain)
{
    // Each goes on while the one before is under way: C registers, D withdraws, R recovers. The codes of all requests.
    const std::pair<std::string, std::string> cases[] = {{"CR", "9 9 9 "}, {"DR", "10 9 10 "}, {"RC", "9 9 9 "},
        {"RD", "9 10 10 "}, {"CC", "9 9 "}, {"DC", "10 9 "}, {"CRC", "9 9 9 9 "}, {"CCR", "9 9 9 9 "}};
    for (const auto& [steps, expected] : cases) {
        const sptr<ScriptedRemoteObject> service = RunService();
        kits_.DoReset();
        kits_.On({});
        service->ClearRequests();
        const auto run = [&](char step) {
            step == 'C' ? kits_.On({}) : step == 'D' ? kits_.Off() : (kits_.ResumeRegisterCallback(), 0);
        };
        size_t begun = 1;
        service->SetHandler([&, all = steps](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
            begun < all.size() ? run(all[begun++]) : void();
            return 0;
        });
        run(steps[0]);
        std::string codes;
        for (const auto& request : service->Requests()) {
            codes += std::to_string(request.code) + ' ';
        }
        EXPECT_EQ(codes, expected) << steps;
    }
}

}  // namespace

}  // namespace VEXA::UpdateEngine
