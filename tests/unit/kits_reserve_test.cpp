// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "kits_fixture.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "reserve_migrate_session.h"

namespace VEXA::UpdateEngine {
namespace {

TEST(HandlerGateTest, AClosedGateAdmitsNobodyAndKnowsWhoIsInside)
{
    HandlerGate gate;
    {
        const HandlerGate::Visit visit(gate);
        EXPECT_TRUE(visit.IsAdmitted() && HandlerGate::Visit(gate).IsAdmitted());
        EXPECT_FALSE(gate.Close() || HandlerGate::Visit(gate).IsAdmitted());
    }
    EXPECT_TRUE(gate.Close());
}

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
        Register("a", observer_);
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

    const sptr<Observer> observer_{new Observer};
    std::optional<ReserveMigrateKits> kits_{std::in_place};
    std::string reply_;
};

TEST_F(ReserveObserversTest, DeathRegistersEveryObserverInTheOrderOfNames)
{
    const ExpectedLog log;
    const sptr<Observer> last(new Observer);
    const sptr<ScriptedRemoteObject> before = RunService();
    Register("beta", new Observer);
    before->QueueAnswer(2006);  // rejected, and kept all the same
    Register("beta", last, 6);
    Register("alpha", observer_);
    const sptr<ScriptedRemoteObject> after = PrepareService();
    after->QueueAnswer(2003);
    before->Die();
    EXPECT_EQ(Registered(after), (Registrations{{"alpha", observer_->AsObject()}, {"beta", last->AsObject()}}));
}

TEST_F(ReserveObserversTest, OnlyASentUnregistrationForgetsTheObserver)
{
    const ExpectedLog log;
    const sptr<ScriptedRemoteObject> first = RunService();
    Register("a", new Observer);
    Register("z", new Observer);
    Register("b", nullptr, 104);
    first->Die();
    const sptr<ScriptedRemoteObject> second = RunService();
    {
        const RefusingParcels refusing;
        EXPECT_EQ(kits_->UnRegisterCallback("a", reply_), 104);
        kits_->ResumeRegisterCallback();
    }
    kits_->ResumeRegisterCallback();
    for (const char* const caller : {"z", "a"}) {
        second->QueueAnswer(-3);
        EXPECT_EQ(kits_->UnRegisterCallback(caller, reply_), 104);
        kits_->ResumeRegisterCallback();
    }
    second->Die();
}

TEST_F(ReserveObserversTest, EndDropsTheObservers)
{
    const ExpectedLog log;
    const sptr<ScriptedRemoteObject> service = RunService();
    const sptr<ReserveMigrateSession> session(new ReserveMigrateSession);
    session->Keep("a", observer_);
    session->GetService();
    session->Connection().Reset();  // this watch stays
    session->GetService();
    session->Close();
    EXPECT_EQ(service->RecipientCount(), 1U);
    kits_->AddDeathRecipient(service);
    kits_->DoReset();
    kits_->AddDeathRecipient(service);
    kits_.reset();
    service->Die();
    EXPECT_EQ(observer_->GetSptrRefCount(), 1);
}

// A child that is forked meanwhile keeps and forgets no observer, and has no handler that its end could wait for.
TEST_F(ReserveObserversTest, EndInsideTheHandlerEndsItAndWaitsForOneOnAnotherThread)
{
    const auto end = [&] { kits_.reset(); };
    const auto endInChildFirst = [&] {
        ExpectInForkedChild([&] {
            const int32_t references = observer_->GetSptrRefCount() + 1;  // with the one of the request
            kits_->RegisterCallback("c", observer_, reply_);
            kits_->UnRegisterCallback("a", reply_);
            return observer_->GetSptrRefCount() == references && (kits_.reset(), true);
        });
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
