// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <map>

#include "service_requests_fixture.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA::UpdateEngine::test {
namespace {

using namespace std::chrono_literals;

// The object of a client's callback.
class Receiver {
public:
    using Event = std::pair<MigrateStage, EventInfo>;
    std::vector<Event> Progress() const
    {
        std::vector<Event> events;
        for (const auto& request : object->Requests()) {
            EXPECT_EQ(request.code, MIGRATE_PROGRESS_CODE);
            request.data->RewindRead();
            EXPECT_EQ(request.data->ReadInterfaceToken(), MIGRATE_CALLBACK_DESCRIPTOR);
            auto& [stage, info] = events.emplace_back();
            stage = static_cast<MigrateStage>(request.data->ReadUint32());
            EXPECT_EQ(JsonParse::JsonStrToStruct(request.data->ReadString(), info), JsonError::SUCCESS);
        }
        return events;
    }
    std::string Restores() const
    {
        std::vector<RestoreEventInfo> events;  // each text is appended to them
        for (const auto& request : object->Requests()) {
            EXPECT_EQ(request.code, RESERVE_STATUS_CODE);
            request.data->RewindRead();
            EXPECT_EQ(request.data->ReadInterfaceToken(), RESERVE_STATUS_OBSERVER_DESCRIPTOR);
            EXPECT_EQ(JsonParse::JsonStrToStruct(request.data->ReadString(), events), JsonError::SUCCESS);
        }
        return Statuses(events);
    }
    // How many ends of tasks it has heard of.
    size_t Finished() const
    {
        size_t count = 0;
        for (const auto& [stage, info] : Progress()) {
            count += static_cast<size_t>(std::ranges::count(info.taskProgresses, kFinished, &TaskProgress::status));
        }
        return count;
    }

    const sptr<ScriptedRemoteObject> object{new ScriptedRemoteObject};
};

class ServiceCallbacks : public RequestsTest {
protected:
    // As the process with that endpoint; returns the result.
    int32_t Add(const Receiver& receiver, uint64_t endpoint)
    {
        caller.endpoint = endpoint;
        return Ask(Code::REGISTER_PROGRESS_CALLBACK, sptr<IRemoteObject>(receiver.object));
    }
    void Register(const Receiver& receiver, uint64_t endpoint = 1) { EXPECT_EQ(Add(receiver, endpoint), 0); }
};

TEST_F(ServiceCallbacks, ProgressIsThatOfTheBytesAndArrivesAtMostTenTimesASecond)
{
    folders.AddPackage("a b c d", 10);
    folders.AddPackage("e", kLarge);
    Run(kSlow);
    Receiver receiver;
    Register(receiver);
    const auto start = std::chrono::steady_clock::now();
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return receiver.Finished() == 5; }));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const auto events = receiver.Progress();
    EXPECT_GE(took.count(), 0.45);  // the throttle held
    EXPECT_TRUE(events.size() >= 5 && static_cast<double>(events.size()) <= took.count() * 10 + 1) << events.size();
    const auto total = static_cast<double>(kLarge + 4 * 10);
    RecordingListener heard;
    uint32_t percent = 0;
    for (const auto& [stage, info] : events) {
        EXPECT_GE(info.progress.percent, percent);
        percent = info.progress.percent;
        if (percent > 0) {
            EXPECT_NEAR(percent, 100.0 - 100.0 * static_cast<double>(info.progress.requiredTraffic) / total, 1.0);
        }
        for (const TaskProgress& task : info.taskProgresses) {
            heard.OnTask(task);
        }
    }
    // Every change of every task, however quick.
    EXPECT_EQ(heard.Heard(), "1 2 3 4 5 ");
    EXPECT_TRUE(std::ranges::count(events, MigrateStage::DOWNLOAD, &Receiver::Event::first) > 0);
    EXPECT_EQ(percent, 100U);
    RateMeter meter;  // a pause counts as one second
    meter.Add(100, RateMeter::Clock::time_point(1s));
    meter.Add(100, RateMeter::Clock::time_point(11s));
    EXPECT_EQ(meter.SecondsFor(400), 3U);
    EXPECT_EQ(events.back().first, MigrateStage::FINISH);
}

TEST_F(ServiceCallbacks, SlowClientsHoldUpNobodyAndGetTheLastWord)
{
    folders.AddPackage("a b", 10);
    Run();
    // The service's threads may still be in an object when the test has gone on.
    const auto isHeld = std::make_shared<std::atomic<bool>>(true);
    std::vector<Receiver> all(20);
    for (const Receiver& slow : all) {
        Register(slow, caller.endpoint + 1);
        slow.object->SetHandler([isHeld](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) {
            return Eventually([isHeld] { return !*isHeld; }) ? 0 : 1;
        });
    }
    Receiver quick;
    Register(quick, caller.endpoint + 1);
    const auto each = [&all](const auto& isSo) { return std::ranges::all_of(all, isSo); };
    const auto hasOne = [](const Receiver& slow) { return slow.object->Requests().size() == 1; };
    Ask(Code::START_PAK_MIGRATE, "a");
    EXPECT_TRUE(Eventually([&] { return each(hasOne); }));
    Ask(Code::START_PAK_MIGRATE, "b");
    EXPECT_TRUE(Eventually([&] { return quick.Finished() == 2; }));
    EXPECT_TRUE(each(hasOne));
    // Events that wait for a withdrawn receiver are not sent any more.
    caller.endpoint = 2;
    EXPECT_EQ(Ask(Code::UNREGISTER_PROGRESS_CALLBACK), 0);
    // When more than 65536 changes wait, only the last of each task is kept.
    for (uint32_t change = 0; change <= 65536; ++change) {
        hub->OnTask({.id = change % 3 + 5, .status = 1, .progress = static_cast<int32_t>(change)});
    }
    *isHeld = false;
    EXPECT_TRUE(Eventually([&] { return std::ranges::count(all, size_t{2}, &Receiver::Finished) == 19; }));
    EXPECT_EQ(std::ranges::count_if(all, hasOne), 1);
    std::map<uint32_t, int32_t> last;
    const auto tasks = all[1].Progress().back().second.taskProgresses;
    for (const TaskProgress& task : tasks) {
        last[task.id] = task.progress;
    }
    last.erase(1);  // may have come before
    EXPECT_EQ(last, (std::map<uint32_t, int32_t>{{2, 100}, {5, 65535}, {6, 65536}, {7, 65534}}));
    EXPECT_LT(tasks.size(), 20U);
    EXPECT_TRUE(hasOne(all[0]));
}

TEST_F(ServiceCallbacks, OnReplacesAndOffEndsAndTheDeadAreForgotten)
{
    folders.AddPackage("a", 10);
    Run();
    Receiver first;
    Receiver second;
    Receiver dead;
    Register(first);
    Register(second);
    Register(dead, 2);
    caller.endpoint = 1;
    EXPECT_TRUE(first.object->RecipientCount() == 0 && second.object->RecipientCount() == 1);
    dead.object->Die();
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return second.Finished() == 1; }));
    EXPECT_TRUE(Ask(Code::UNREGISTER_PROGRESS_CALLBACK) == 0 && second.object->RecipientCount() == 0);
    const size_t heard = second.object->Requests().size();

    // A receiver that comes later hears how the migration stands.
    Receiver late;
    late.object->SetHandler([](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) { return 5; });
    Register(late);
    ASSERT_TRUE(Eventually([&] { return late.Finished() == 1; }));
    EXPECT_EQ(late.Progress()[0].first, MigrateStage::FINISH);
    Ask(Code::START_MIGRATE);
    ASSERT_TRUE(Eventually([&] { return late.Finished() == 2; }));
    EXPECT_EQ(second.object->Requests().size(), heard);
    EXPECT_TRUE(first.object->Requests().empty() && dead.object->Requests().empty());
    EXPECT_TRUE(Lines().find("a progress event was answered with 5; ") != std::string::npos) << Lines();
    // Whose process has ended hears no more, even before its death is known.
    late.object->SetHandler([](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) { return IPC_DEAD_OBJECT; });
    const size_t all = late.object->Requests().size() + 1;
    hub->OnTask({});
    EXPECT_TRUE(Eventually([&] { return late.object->Requests().size() == all; }));
    hub->OnTask({});
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(late.object->Requests().size(), all);
}

TEST_F(ServiceCallbacks, ThereIsAnEndToHowManyAreKeptAndTheyCostNoThreads)
{
    folders.AddPackage("a", 10);
    Run();
    const Receiver receiver;
    for (uint64_t endpoint = 1; endpoint <= 2048; ++endpoint) {
        Register(receiver, endpoint);
    }
    EXPECT_EQ(Add(receiver, 2049), MIGRATE_RESULT_OFFSET + MIGRATE_TOO_MANY);
    Register(receiver, 1);  // in place of its own
    const std::string name(1025, 'c');
    EXPECT_NE(Ask(Code::REGISTER_RESERVE_OBSERVER, name.c_str(), sptr<IRemoteObject>(receiver.object)), 0);
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, name.c_str() + 1, sptr<IRemoteObject>(receiver.object)), 0);
    Ask(Code::START_MIGRATE);
    EXPECT_TRUE(Eventually([&] { return receiver.Finished() == 2048; }));
    EXPECT_LT(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()), 500);
}

TEST_F(ServiceCallbacks, AnObserverHearsOfEveryRestorationUntilItIsWithdrawn)
{
    folders.AddPackage("r1 r2", 10, R"({"reserved":true})");
    Run();
    Receiver own;
    Receiver other;
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "name", sptr<IRemoteObject>(own.object)), 0);
    caller.endpoint++;  // another process's name is another one
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "name", sptr<IRemoteObject>(other.object)), 0);
    caller.endpoint--;
    Ask(Code::RESTORE_APP, "r1", "");
    const std::string first = "r1:0 r1:1 r1:1 r1:3 ";
    EXPECT_TRUE(Eventually([&] { return own.Restores() == first && other.Restores() == first; }));
    EXPECT_EQ(Ask(Code::UNREGISTER_RESERVE_OBSERVER, "name"), 0);
    Ask(Code::RESTORE_APP, "r2", "");
    EXPECT_TRUE(Eventually([&] { return other.Restores() == first + "r2:0 r2:1 r2:1 r2:3 "; }));
    EXPECT_EQ(own.Restores(), first);
    // After a death of the service, what ended before the observer was back is told again.
    Receiver back;
    EXPECT_EQ(Ask(Code::REGISTER_RESERVE_OBSERVER, "name", sptr<IRemoteObject>(back.object)), 0);
    EXPECT_TRUE(Eventually([&] { return back.Restores() == "r1:3 r2:3 "; }));
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
