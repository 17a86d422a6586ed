// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <map>

#include "service_requests_fixture.h"
#include "vexa/ipc/ipc_errors.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA::UpdateEngine::test {
namespace {

using namespace std::chrono_literals;

// The object of a client's callback, which takes as long as it is told to.
class Receiver {
public:
    // The service's thread may still be in the object when the test has gone on.
    struct Pace {
        std::atomic<bool> isHeld{false};
        std::atomic<int> started{0};
    };

    Receiver()
        : object(new ScriptedRemoteObject([pace = pace](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
              pace->started++;
              while (pace->isHeld) {
                  std::this_thread::sleep_for(1ms);
              }
              return 0;
          }))
    {}

    struct Event {
        MigrateStage stage = MigrateStage::NONE;
        EventInfo info;
    };
    std::vector<Event> Progress() const
    {
        std::vector<Event> events;
        for (const auto& request : object->Requests()) {
            EXPECT_EQ(request.code, MIGRATE_PROGRESS_CODE);
            request.data->RewindRead();
            EXPECT_EQ(request.data->ReadInterfaceToken(), MIGRATE_CALLBACK_DESCRIPTOR);
            Event event;
            event.stage = static_cast<MigrateStage>(request.data->ReadUint32());
            EXPECT_EQ(JsonParse::JsonStrToStruct(request.data->ReadString(), event.info), JsonError::SUCCESS);
            events.push_back(event);
        }
        return events;
    }
    // "r1:0 r1:1", over all requests.
    std::string Restores() const
    {
        std::string text;
        for (const auto& request : object->Requests()) {
            EXPECT_EQ(request.code, RESERVE_STATUS_CODE);
            request.data->RewindRead();
            EXPECT_EQ(request.data->ReadInterfaceToken(), RESERVE_STATUS_OBSERVER_DESCRIPTOR);
            std::vector<RestoreEventInfo> events;
            EXPECT_EQ(JsonParse::JsonStrToStruct(request.data->ReadString(), events), JsonError::SUCCESS);
            for (const RestoreEventInfo& event : events) {
                text += event.restoreAppInfo.scanSourceDir + ":" + std::to_string(event.status) + " ";
            }
        }
        return text;
    }
    bool HasFinished() const
    {
        const auto events = Progress();
        return !events.empty() && events.back().stage == MigrateStage::FINISH;
    }

    const std::shared_ptr<Pace> pace = std::make_shared<Pace>();
    const sptr<ScriptedRemoteObject> object;
};

class ServiceCallbacks : public RequestsTest {
protected:
    static constexpr size_t kLarge = 1000000;
    static constexpr uint64_t kSlow = 2000000;
};

TEST_F(ServiceCallbacks, ProgressArrivesInOrderAndAtMostTenTimesASecond)
{
    for (const char* name : {"a", "b", "c", "d"}) {
        folders.AddPackage(name, 10);
    }
    folders.AddPackage("e", kLarge);
    Run(kSlow);
    Receiver receiver;
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(receiver.object)), 0);
    const auto start = std::chrono::steady_clock::now();
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return engine->GetStatus(MigrateStage::NONE).status == 3; }));
    ASSERT_TRUE(Eventually([&] { return receiver.object->Requests().size() >= 5; }));
    std::this_thread::sleep_for(150ms);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const auto events = receiver.Progress();
    EXPECT_LE(static_cast<double>(events.size()), took.count() * 10 + 1);
    std::map<uint32_t, std::string> statuses;
    uint32_t percent = 0;
    for (const auto& event : events) {
        EXPECT_GE(event.info.progress.percent, percent);
        percent = event.info.progress.percent;
        for (const TaskProgress& task : event.info.taskProgresses) {
            std::string& text = statuses[task.id];
            const std::string status = std::to_string(task.status);
            text += text.empty() || text.substr(text.size() - 1) != status ? status : "";
        }
    }
    // Every change of every task, however quick.
    EXPECT_EQ(statuses, (std::map<uint32_t, std::string>{{1, "013"}, {2, "013"}, {3, "013"}, {4, "013"}, {5, "013"}}));
    EXPECT_EQ(percent, 100U);
    EXPECT_EQ(events.back().stage, MigrateStage::FINISH);
}

TEST_F(ServiceCallbacks, ASlowClientHoldsUpNobodyAndGetsTheLastWord)
{
    folders.AddPackage("a", 10);
    folders.AddPackage("b", 10);
    Run();
    Receiver slow;
    slow.pace->isHeld = true;
    // This process's one callback, and that of another.
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(slow.object)), 0);
    Receiver quick;
    EXPECT_TRUE(hub->AddProgress(1, quick.object, nullptr));
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return slow.pace->started == 1; }));
    ASSERT_TRUE(Ends());
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(slow.pace->started, 1);
    slow.pace->isHeld = false;
    EXPECT_TRUE(Eventually([&] { return slow.object->Requests().size() == 2; }));
    EXPECT_TRUE(slow.HasFinished());
    EXPECT_TRUE(quick.HasFinished());
}

TEST_F(ServiceCallbacks, OnReplacesAndOffEndsAndTheDeadAreForgotten)
{
    folders.AddPackage("a", 10);
    Run();
    Receiver first;
    Receiver second;
    Receiver dead;
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(first.object)), 0);
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(second.object)), 0);
    EXPECT_TRUE(hub->AddProgress(1, dead.object, nullptr));
    EXPECT_EQ(first.object->RecipientCount(), 0U);
    EXPECT_EQ(second.object->RecipientCount(), 1U);
    dead.object->Die();
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return second.object->Requests().size() == 1; }));
    ASSERT_TRUE(Ends());
    EXPECT_EQ(Ask(Code::UNREGISTER_PROGRESS_CALLBACK), 0);
    EXPECT_EQ(second.object->RecipientCount(), 0U);
    const size_t heard = second.object->Requests().size();
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Ends());
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(second.object->Requests().size(), heard);
    EXPECT_TRUE(first.object->Requests().empty());
    EXPECT_TRUE(dead.object->Requests().empty());

    // Who comes later hears how it stands.
    Receiver late;
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(late.object)), 0);
    ASSERT_TRUE(Eventually([&] { return late.object->Requests().size() == 1; }));
    const auto events = late.Progress();
    EXPECT_EQ(events[0].stage, MigrateStage::FINISH);
    ASSERT_EQ(events[0].info.taskProgresses.size(), 1U);
    EXPECT_EQ(events[0].info.taskProgresses[0].status, static_cast<int32_t>(TaskStatus::FINISHED));
}

TEST_F(ServiceCallbacks, ThereIsAnEndToHowManyAreKept)
{
    Run();
    const sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    for (pid_t process = 1; process <= static_cast<pid_t>(CallbackHub::MOST_RECEIVERS); ++process) {
        ASSERT_TRUE(hub->AddProgress(process, object, nullptr));
    }
    EXPECT_EQ(
        Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(object)), MIGRATE_RESULT_OFFSET + MIGRATE_TOO_MANY);
    EXPECT_TRUE(hub->AddProgress(1, object, nullptr));  // in place of its own
    hub->RemoveProgress(2);
    EXPECT_EQ(Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(object)), 0);
}

TEST_F(ServiceCallbacks, EveryObserverHearsOfEveryRestoration)
{
    folders.AddPackage("r1", 10, R"({"reserved":true})");
    folders.AddPackage("r2", 10, R"({"reserved":true})");
    Run();
    Receiver alpha;
    Receiver beta;
    Receiver other;
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "beta", sptr<IRemoteObject>(beta.object)), 0);
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "alpha", sptr<IRemoteObject>(alpha.object)), 0);
    EXPECT_TRUE(hub->AddObserver(1, "alpha", other.object, nullptr));  // another process's name is another one
    EXPECT_EQ(Error().errorNum, 0);
    Ask(Code::RESTORE_APP, "r1", "");
    const std::string first = "r1:0 r1:1 r1:1 r1:3 ";
    for (const Receiver* receiver : {&alpha, &beta, &other}) {
        EXPECT_TRUE(Eventually([&] { return receiver->Restores() == first; })) << receiver->Restores();
    }
    EXPECT_EQ(Ask(Code::UNREGISTER_RESERVE_OBSERVER, "beta"), 0);
    EXPECT_EQ(Error().errorNum, 0);
    other.object->Die();
    Ask(Code::RESTORE_APP, "r2", "");
    EXPECT_TRUE(Eventually([&] { return alpha.Restores() == first + "r2:0 r2:1 r2:1 r2:3 "; }));
    EXPECT_EQ(beta.Restores(), first);
    // After a death of the service, what ended before the observer was back is told again.
    Receiver back;
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "beta", sptr<IRemoteObject>(back.object)), 0);
    EXPECT_TRUE(Eventually([&] { return back.Restores() == "r1:3 r2:3 "; }));
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
