// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "kits_fixture.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "reserve_migrate_session.h"

namespace VEXA::UpdateEngine {
namespace {

const LinesOf CLIENT{"reserve_migrate_kits.cpp"};
const Lines LOOKUP = CLIENT.Info({"GetService entry", "GetService recreate service instance"});

class ReserveObserversTest : public KitsTest {
protected:
    // The callers and observers that the service was asked to register.
    using Registrations = std::vector<std::pair<std::string, sptr<IRemoteObject>>>;
    static Registrations Registered(const sptr<ScriptedRemoteObject>& service)
    {
        Registrations registrations;
        for (const auto& request : service->Requests()) {
            EXPECT_EQ(request.code, 20U);
            request.data->ReadInterfaceToken();
            std::string caller = request.data->ReadString();
            registrations.emplace_back(caller, request.data->ReadRemoteObject());
        }
        return registrations;
    }
    void Register(const char* caller, const sptr<IReserveMigrateStatusObserver>& observer, int32_t result = 0)
    {
        EXPECT_EQ(kits_->RegisterCallback(caller, observer, reply_), result);
    }

    // Registers two observers, lets the service die, and returns the next instance, whose first answer does `act`.
    sptr<ScriptedRemoteObject> DieAndAnswer(const std::function<void()>& act)
    {
        const sptr<ScriptedRemoteObject> before = RunService();
        Register("a", new Observer);
        Register("b", new Observer);
        const sptr<ScriptedRemoteObject> after = PrepareService();
        after->SetHandler([&](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
            after->SetHandler(nullptr);
            act();
            return 0;
        });
        before->Die();
        return after;
    }
    // The same, with an operation on another thread that has to wait for the answer.
    sptr<ScriptedRemoteObject> DieAndAnswerAfter(const std::function<void()>& operation)
    {
        std::thread other;
        std::atomic<bool> answered{false};
        const auto start = std::chrono::steady_clock::now();
        const auto after = DieAndAnswer([&] {
            other = std::thread([&] {
                operation();
                EXPECT_TRUE(answered);
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            answered = true;
        });
        other.join();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        return after;
    }

    std::optional<ReserveMigrateKits> kits_{std::in_place};
    std::string reply_;
};

TEST_F(ReserveObserversTest, DeathRegistersEveryObserverInTheOrderOfNames)
{
    const sptr<Observer> first(new Observer);
    const sptr<Observer> last(new Observer);
    const sptr<ScriptedRemoteObject> before = RunService();
    Register("beta", new Observer);
    before->QueueAnswer(2006);  // rejected, and kept all the same
    Register("beta", last, 6);
    Register("alpha", first);
    const sptr<ScriptedRemoteObject> after = PrepareService();
    after->QueueAnswer(2003);
    RecordingLogSink log;
    before->Die();
    EXPECT_EQ(log.Messages(), CLIENT.Info({"migrate_server is dead", "resume migrate broker callbacks"}) + LOOKUP +
                                  CLIENT.Info({"ReserveMigrateKits::AddDeathRecipient ret=true"}) + ProxyLines(2003) +
                                  CLIENT.Info({"register caller=alpha callback result=3"}) + ProxyLines(0) +
                                  CLIENT.Info({"register caller=beta callback result=0"}));
    EXPECT_EQ(Registered(after), (Registrations{{"alpha", first->AsObject()}, {"beta", last->AsObject()}}));
}

TEST_F(ReserveObserversTest, OnlyASentUnregistrationForgetsTheObserver)
{
    const sptr<ScriptedRemoteObject> first = RunService();
    Register("a", new Observer);
    Register("z", new Observer);
    const Lines dead = CLIENT.Info({"migrate_server is dead", "resume migrate broker callbacks"});
    RecordingLogSink log;
    Register("b", nullptr, 104);
    first->Die();
    EXPECT_EQ(log.Messages(), CLIENT.Info({"RegisterCallback", "RegisterCallback, b observer callback is nullptr"}) +
                                  dead + LOOKUP +
                                  CLIENT.Error({"Get remote object from samgr failed", "service is nullptr"}));
    const sptr<ScriptedRemoteObject> second = RunService();
    {
        const RefusingParcels refusing;
        EXPECT_EQ(kits_->UnRegisterCallback("a", reply_), 104);
        log.Clear();
        kits_->ResumeRegisterCallback();
        EXPECT_EQ(log.Messages(), CLIENT.Info({"resume migrate broker callbacks", "GetService entry",
                                      "RegisterCallback InterfaceToken write error"}));
    }
    kits_->ResumeRegisterCallback();
    EXPECT_EQ(Registered(second).size(), 2U);
    for (const auto& [caller, left] : {std::pair("z", 1U), {"a", 0U}}) {
        second->QueueAnswer(-3);
        EXPECT_EQ(kits_->UnRegisterCallback(caller, reply_), 104);
        second->ClearRequests();
        kits_->ResumeRegisterCallback();
        EXPECT_EQ(Registered(second).size(), left);
    }
    log.Clear();
    second->Die();
    EXPECT_EQ(log.Messages(), dead + CLIENT.Info({"observers_ is empty"}));
}

TEST_F(ReserveObserversTest, EndDropsTheObservers)
{
    const sptr<Observer> observer(new Observer);
    const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
    const sptr<ReserveMigrateSession> session(new ReserveMigrateSession);
    session->Keep("a", observer);
    session->Connection().AddDeathRecipient(LOG_SITE(), service);  // without a proxy, so that nobody withdraws it
    session->Close();
    kits_->AddDeathRecipient(service);
    EXPECT_EQ(service->AddedCount(), 2U);
    kits_.reset();
    RecordingLogSink log;
    service->Die();
    EXPECT_TRUE(log.Messages().empty()) << "the session is closed";
    EXPECT_EQ(observer->GetSptrRefCount(), 1);
}

// In a forked child there is no handler that its end could wait for.
TEST_F(ReserveObserversTest, EndInsideTheHandlerEndsItAndWaitsForOneOnAnotherThread)
{
    const auto end = [&] { kits_.reset(); };
    const auto endInChildFirst = [&] {
        ExpectInForkedChild([&] { return kits_.reset(), true; });
        end();
    };
    for (const bool isOnAnother : {false, true}) {
        SCOPED_TRACE(isOnAnother);
        const auto after = isOnAnother ? DieAndAnswerAfter(end) : DieAndAnswer(endInChildFirst);
        EXPECT_TRUE(after->RecipientCount() == 0 && after->Requests().size() == 1);
        kits_.emplace();
    }
}

TEST_F(ReserveObserversTest, RegistrationWaitsWhileObserversAreRegisteredAgain)
{
    const auto after = DieAndAnswerAfter([&] { Register("c", new Observer); });
    EXPECT_EQ(Registered(after).size(), 3U);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
