// SPDX-License-Identifier: Apache-2.0
// The connection of the migration client: lookup, death of the service, callbacks across it.
#include <atomic>
#include <chrono>
#include <thread>

#include "kits_fixture.h"
#include "migrate_server_kits_impl.h"
#include "migrate_service_proxy.h"

namespace VEXA::UpdateEngine {
namespace {

const LinesOf CLIENT("migrate_server_kits_impl.cpp");
const Lines LOOKUP = CLIENT.Info({"GetService entry", "GetService recreate service instance"});
const Lines WATCHED = CLIENT.Info({"MigrateServerKitsImpl::AddDeathRecipient ret=true"});

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

    MigrateServerKitsImpl kits_;
    BusinessError error_;
};

TEST_F(KitsRecoveryTest, LookupStartsTheServiceOnceAndKeepsIt)
{
    const sptr<ScriptedRemoteObject> service = PrepareService();
    RecordingLogSink log;
    EXPECT_EQ(kits_.GetService()->AsObject(), service);
    EXPECT_EQ(log.Messages(), LOOKUP + WATCHED);
    EXPECT_EQ(kits_.GetService(), kits_.GetService());
    EXPECT_EQ(manager_->Calls(), (ManagerCalls{CHECK, LOAD}));
    kits_.DoReset();
    kits_.GetService();
    EXPECT_EQ(manager_->Calls(), (ManagerCalls{CHECK, LOAD, CHECK}));
    EXPECT_EQ(service->AddedCount(), 2U);
}

TEST_F(KitsRecoveryTest, EveryGapOfALookupIsSurvived)
{
    const sptr<ScriptedRemoteObject> service = RunService();
    service->RefuseDeathRecipients(true);
    BrokerRegistration::Get().Unregister(MIGRATE_SERVER_DESCRIPTOR);
    RecordingLogSink log;
    kits_.AddDeathRecipient(nullptr);
    EXPECT_EQ(kits_.GetService(), nullptr);
    service->RefuseDeathRecipients(false);
    EXPECT_EQ(kits_.GetService(), nullptr);  // a refused watch isn't repeated
    EXPECT_EQ(log.Messages(), LOOKUP + CLIENT.Info({"MigrateServerKitsImpl::AddDeathRecipient ret=false"}) + LOOKUP);
    BrokerRegistration::Get().Register(MIGRATE_SERVER_DESCRIPTOR,
        [](const sptr<IRemoteObject>& object) { return sptr<IRemoteBroker>(new MigrateServiceProxy(object)); });
    EXPECT_NE(kits_.GetService(), nullptr);
    EXPECT_EQ(service->AddedCount(), 0U);

    kits_.DoReset();
    log.Clear();
    const UnreachableManager none;
    EXPECT_EQ(kits_.GetService(), nullptr);
    EXPECT_EQ(log.Messages(), LOOKUP + CLIENT.Error({"manager is nullptr"}));
}

TEST_F(KitsRecoveryTest, ConcurrentFirstRequestsShareOneLookup)
{
    const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
    manager_->OnCheck([&](int32_t) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return service;
    });
    MigrateServerKits* seen[2] = {};
    const auto request = [&](int i) {
        seen[i] = &MigrateServerKits::GetKitsInstance();
        BusinessError error;
        EXPECT_EQ(seen[i]->StartMigrate(error), 0);
    };
    std::thread other(request, 0);
    request(1);
    other.join();
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(manager_->Calls(), ManagerCalls{CHECK});
    service->Die();
}

TEST_F(KitsRecoveryTest, DeathWithoutCallbackWaitsForTheNextRequest)
{
    const sptr<ScriptedRemoteObject> first = RunService();
    kits_.GetService();
    const sptr<ScriptedRemoteObject> second = PrepareService();
    RecordingLogSink log;
    first->Die();
    EXPECT_EQ(log.Messages(),
        CLIENT.Info({"migrate_server is dead", "progressCallback is null, ignore ResumeRegisterCallback"}));
    EXPECT_EQ(manager_->Calls(), ManagerCalls{CHECK});
    EXPECT_EQ(kits_.StartMigrate(error_), 0);
    EXPECT_EQ(second->Requests().size(), 1U);
}

TEST_F(KitsRecoveryTest, DeathRegistersTheLastCallbackWithTheNextInstance)
{
    const sptr<ScriptedRemoteObject> first = RunService();
    EXPECT_EQ(kits_.On({}), 0);
    EXPECT_EQ(kits_.On({}), 0);
    first->QueueAnswer(2001);
    EXPECT_EQ(kits_.On({}), 1);  // a failed one doesn't count
    const sptr<ScriptedRemoteObject> second = PrepareService();
    second->QueueAnswer(2005);
    const auto resumed = [](int32_t result) {
        return LOOKUP + WATCHED + CLIENT.Info({"ResumeRegisterCallback"}) +
               ProxyLines(result == 0 ? 0 : 2000 + result) +
               CLIENT.Info({"MigrateServerKitsImpl::ResumeRegisterCallback result=" + std::to_string(result)});
    };
    RecordingLogSink log;
    first->Die();
    EXPECT_EQ(log.Messages(), CLIENT.Info({"migrate_server is dead"}) + resumed(5));
    EXPECT_EQ(second->RecipientCount(), 1U);

    // Whatever fails, the callback stays for the next attempt.
    log.Clear();
    second->Die();
    EXPECT_EQ(log.Messages(), CLIENT.Info({"migrate_server is dead"}) + LOOKUP +
                                  CLIENT.Error({"Get remote object from samgr failed", "service is null"}));
    const sptr<ScriptedRemoteObject> third = RunService();
    log.Clear();
    {
        const RefusingParcels refusing;
        kits_.ResumeRegisterCallback();
    }
    EXPECT_EQ(log.Messages(), LOOKUP + WATCHED + CLIENT.Info({"ResumeRegisterCallback"}));
    const sptr<ScriptedRemoteObject> fourth = PrepareService();
    log.Clear();
    third->Die();
    EXPECT_EQ(log.Messages(), CLIENT.Info({"migrate_server is dead"}) + resumed(0));
    EXPECT_NE(Carried(first, 0), Carried(first, 1));
    EXPECT_EQ(Carried(second, 0), Carried(first, 1));
    EXPECT_EQ(Carried(fourth, 0), Carried(first, 1));
}

TEST_F(KitsRecoveryTest, OffForgetsTheCallbackOnceItsRequestIsSent)
{
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
    const sptr<ScriptedRemoteObject> third = PrepareService();
    second->Die();
    EXPECT_TRUE(third->Requests().empty());
}

// The service answers On and dies before the client has stored the callback: the death handler finds nothing to
// register again, so On itself does.
TEST_F(KitsRecoveryTest, DeathDuringOnIsNotMissed)
{
    const sptr<ScriptedRemoteObject> first = RunService();
    const sptr<ScriptedRemoteObject> second = PrepareService();
    first->SetHandler([&](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
        first->Die();
        return 0;
    });
    EXPECT_EQ(kits_.On({}), 0);
    EXPECT_EQ(Carried(second, 0), Carried(first, 0));
}

// The sanitizers judge.
TEST_F(KitsRecoveryTest, CallbackChangesDuringDeaths)
{
    std::atomic<bool> ended{false};
    std::thread caller([&] {
        while (!ended) {
            kits_.On({});
            kits_.Off();
        }
    });
    for (int i = 0; i < 200; ++i) {
        const sptr<ScriptedRemoteObject> dying = RunService();
        kits_.GetService();
        PrepareService();
        dying->Die();
    }
    ended = true;
    caller.join();
    EXPECT_NE(kits_.GetService(), nullptr);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
