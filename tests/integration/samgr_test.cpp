// SPDX-License-Identifier: Apache-2.0
// The manager among real processes: this one is the client.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "samgr_peer.h"
#include "samgr_world.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_load_callback_stub.h"
#include "vexa/samgr/system_ability_manager_client.h"

using namespace std::chrono_literals;
using namespace VEXA;
using namespace VEXA::test;
using std::chrono::steady_clock;

namespace {

constexpr int32_t kService = 1;
constexpr int32_t kClosed = 2;  // only its own program may register it
constexpr int32_t kExits = 10;
constexpr int32_t kMissing = 11;
constexpr int32_t kHangs = 12;
constexpr int32_t kUnset = 13;
constexpr int32_t kHangsLong = 14;
constexpr int32_t kNoProfile = 99;

class LoadCallback : public SystemAbilityLoadCallbackStub {
public:
    void OnLoadSystemAbilitySuccess(int32_t, const sptr<IRemoteObject>&) override { ++successes; }
    void OnLoadSystemAbilityFail(int32_t) override { ++failures; }
    std::atomic<int> successes{0};
    std::atomic<int> failures{0};
};

pid_t PidOf(const sptr<IRemoteObject>& object)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    return object != nullptr && object->SendRequest(PEER_PID, data, reply, option) == 0 ? reply.ReadInt32() : -1;
}

std::string Description(const sptr<IRemoteObject>& object)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    return object != nullptr && object->SendRequest(PEER_DESCRIBE, data, reply, option) == 0 ? reply.ReadString() : "";
}

class Samgr : public testing::Test {
protected:
    // The process has one runtime directory, so both suites share one world, and the first makes it.
    static void SetUpTestSuite()
    {
        if (world_ != nullptr) {
            return;
        }
        static SamgrWorld world;
        world_ = &world;
        setenv("PEER_DIRECTORY", "/usr", 1);
        setenv("NOTIFY_SOCKET", "/nowhere", 1);
        world_->AddProfile(kService, SAMGR_PEER,
            R"(, "arguments": ["serve", "1", "${PEER_DIRECTORY}/x"], "directory": "${PEER_DIRECTORY}",)"
            R"( "environment": {"PEER_VARIABLE": "a b"})");
        world_->AddProfile(kClosed, SAMGR_PEER, R"(, "arguments": ["serve", "2"], "register": [])");
        world_->AddProfile(kExits, SAMGR_PEER, R"(, "arguments": ["exit", "3"])");
        world_->AddProfile(kMissing, "no_such_program", "");
        world_->AddProfile(kHangs, SAMGR_PEER, R"(, "arguments": ["hang"], "startTimeout": 0.3)");
        world_->AddProfile(kUnset, SAMGR_PEER, R"(, "arguments": ["${NOT_SET}"])");
        world_->AddProfile(kHangsLong, SAMGR_PEER, R"(, "arguments": ["hang"], "startTimeout": 60)");
    }

    void SetUp() override { StartManager(); }
    void StartManager()
    {
        world_->StartManager();
        ASSERT_TRUE(Eventually([this] {
            manager_ = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
            return manager_ != nullptr;
        }));
    }
    void TearDown() override
    {
        if (HasFailure()) {
            fputs(FileText(world_->LogFile()).c_str(), stderr);
        }
        if (world_->Manager().Pid() > 0) {
            world_->EndManager(SIGTERM);
        }
        // The next test must not take the dead one for its own.
        EXPECT_TRUE(
            Eventually([] { return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager() == nullptr; }));
    }

    static SamgrWorld* world_;
    sptr<ISystemAbilityManager> manager_;
};
SamgrWorld* Samgr::world_ = nullptr;

TEST_F(Samgr, ConcurrentLoadsStartOneProgramAndLookupsNone)
{
    EXPECT_EQ(manager_->CheckSystemAbility(kService), nullptr);
    std::vector<sptr<IRemoteObject>> objects(8);
    std::vector<std::thread> threads;
    for (auto& object : objects) {
        threads.emplace_back([&object, this] { object = manager_->LoadSystemAbility(kService, 5); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& object : objects) {
        EXPECT_TRUE(object != nullptr && object == objects[0]);
    }
    EXPECT_TRUE(manager_->CheckSystemAbility(kService) == objects[0]);
    EXPECT_GT(PidOf(objects[0]), 0);

    const sptr<LoadCallback> callback(new LoadCallback);
    EXPECT_EQ(manager_->LoadSystemAbility(kService, callback), SAMGR_OK);
    EXPECT_TRUE(Eventually([&] { return callback->successes == 1; }));
}

TEST_F(Samgr, ProgramsGetWhatTheirProfileSaysAndNothingOfTheManagers)
{
    const auto object = manager_->LoadSystemAbility(kService, 5);
    EXPECT_EQ(Description(object),
        "arguments serve 1 /usr/x; variable a b; notify none; directory /usr; session own; "
        "SIGTERM free; descriptors 0");
    const std::string line = "samgr_peer[" + std::to_string(PidOf(object)) + "]: peer says hello";
    EXPECT_TRUE(Eventually([&] { return FileText(world_->LogFile()).find(line) != std::string::npos; }));
}

TEST_F(Samgr, FailedStartsAreReportedAtOnceWithTheirReason)
{
    struct Case {
        int32_t id;
        const char* reason;
        bool accepted;
    };
    const Case cases[] = {{kExits, "status 3", true}, {kMissing, "no such program", true}, {kHangs, "in time", true},
        {kUnset, "NOT_SET", true}, {kNoProfile, "no profile", false}};
    for (const Case& failure : cases) {
        SCOPED_TRACE(failure.id);
        const auto start = steady_clock::now();
        std::string reason;
        EXPECT_EQ(manager_->LoadSystemAbility(failure.id, 5, &reason), nullptr);
        EXPECT_LT(steady_clock::now() - start, 3s);
        EXPECT_NE(reason.find(failure.reason), std::string::npos) << reason;

        const sptr<LoadCallback> callback(new LoadCallback);
        EXPECT_EQ(manager_->LoadSystemAbility(failure.id, callback) == SAMGR_OK, failure.accepted);
        if (failure.accepted) {
            EXPECT_TRUE(Eventually([&] { return callback->failures == 1; }));
        }
        EXPECT_EQ(callback->successes, 0);
    }
    // A caller may be less patient than the profile.
    const auto start = steady_clock::now();
    std::string reason;
    EXPECT_EQ(manager_->LoadSystemAbility(kHangsLong, 1, &reason), nullptr);
    EXPECT_GE(steady_clock::now() - start, 1s);
    EXPECT_LT(steady_clock::now() - start, 2s);
    EXPECT_EQ(reason, "not there within 1 s");
}

TEST_F(Samgr, AKilledServiceIsReplacedAtOnceAndNeverHandedOutAgain)
{
    class Notice : public IRemoteObject::DeathRecipient {
    public:
        void OnRemoteDied(const wptr<IRemoteObject>&) override { died = true; }
        std::atomic<bool> died{false};
    };
    std::set<pid_t> pids;
    for (int round = 0; round < 100; ++round) {
        const auto start = steady_clock::now();
        const auto object = manager_->LoadSystemAbility(kService, 5);
        const pid_t pid = PidOf(object);
        ASSERT_GT(pid, 0) << round;
        EXPECT_TRUE(pids.insert(pid).second);
        EXPECT_LT(steady_clock::now() - start, 2s) << round;
        const sptr<Notice> notice(new Notice);
        ASSERT_TRUE(object->AddDeathRecipient(notice));
        kill(pid, SIGKILL);
        ASSERT_TRUE(Eventually([&] { return notice->died.load(); }));
        EXPECT_FALSE(manager_->CheckSystemAbility(kService) == object);
    }
}

TEST_F(Samgr, OnlyTheStartedProgramRegistersAClosedService)
{
    const sptr<IRemoteObject> own(new IPCObjectStub(u"own"));
    EXPECT_EQ(manager_->AddSystemAbility(kClosed, own), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(manager_->AddSystemAbility(kNoProfile, own), SAMGR_NO_PROFILE);
    const pid_t pid = PidOf(manager_->LoadSystemAbility(kClosed, 5));
    EXPECT_GT(pid, 0);

    EXPECT_EQ(manager_->AddSystemAbility(kService, own), SAMGR_OK);  // its profile allows the manager's user
    EXPECT_TRUE(manager_->CheckSystemAbility(kService) == own);
    EXPECT_EQ(manager_->AddSystemAbility(kService, new IPCObjectStub(u"second")), SAMGR_ALREADY_REGISTERED);
    EXPECT_EQ(manager_->RemoveSystemAbility(kClosed), SAMGR_NOT_ALLOWED);
    EXPECT_EQ(manager_->RemoveSystemAbility(kService), SAMGR_OK);
    EXPECT_EQ(manager_->CheckSystemAbility(kService), nullptr);
}

TEST_F(Samgr, ServicesOutliveAKilledManagerAndRegisterWithTheNext)
{
    const pid_t service = PidOf(manager_->LoadSystemAbility(kService, 5));
    const sptr<LoadCallback> callback(new LoadCallback);
    ASSERT_EQ(manager_->LoadSystemAbility(kHangsLong, callback), SAMGR_OK);
    std::string reason;
    std::thread waiter([&] { EXPECT_EQ(manager_->LoadSystemAbility(kHangsLong, 20, &reason), nullptr); });
    std::this_thread::sleep_for(50ms);
    const auto killed = steady_clock::now();
    world_->EndManager(SIGKILL);
    waiter.join();
    EXPECT_TRUE(Eventually([&] { return callback->failures == 1; }));
    EXPECT_EQ(reason, "the manager has ended");
    EXPECT_LT(steady_clock::now() - killed, 2s);

    StartManager();
    // A load that comes first finds the living service and starts none.
    EXPECT_EQ(PidOf(manager_->LoadSystemAbility(kService, 5)), service);
    kill(service, SIGKILL);
}

TEST_F(Samgr, AnOrderlyStopEndsTheProgramsAndASecondManagerIsRefused)
{
    const pid_t service = PidOf(manager_->LoadSystemAbility(kService, 5));
    const std::string output = world_->Folder() + "/second";
    ChildProcess second = StartLogged({SAMGRD, "--profiles", world_->Profiles()}, output);
    EXPECT_EQ(ExitStatus(second), 3);
    EXPECT_NE(FileText(output).find("another manager serves"), std::string::npos) << FileText(output);
    EXPECT_TRUE(IsRunning(service));
    EXPECT_EQ(world_->EndManager(SIGTERM), 0);
    EXPECT_FALSE(IsRunning(service));
    EXPECT_EQ(SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager(), nullptr);
}

TEST_F(Samgr, ProfilesAreReadAgainOnRequest)
{
    constexpr int32_t kLater = 20;
    world_->AddProfile(kLater, SAMGR_PEER, R"(, "arguments": ["serve", "20"])");
    EXPECT_EQ(manager_->LoadSystemAbility(kLater, 5), nullptr);
    world_->Manager().Signal(SIGHUP);
    EXPECT_TRUE(Eventually([&] { return manager_->LoadSystemAbility(kLater, 5) != nullptr; }));
}

// The command loads the service, writes its process id and its runtime directory, and goes on as `end` says.
class VexaSession : public Samgr {
protected:
    static ChildProcess Start(const std::string& end)
    {
        const std::string command = "\"$0\" load 1 && echo \"$VEXA_RUNTIME_DIR\" && echo ready; " + end;
        std::filesystem::remove(Output());
        return StartLogged(
            {VEXA_SESSION, "--profiles", world_->Profiles(), "--", "sh", "-c", command, SAMGR_PEER}, Output());
    }
    static std::string Output() { return world_->Folder() + "/session"; }

    // The service's process and the runtime directory, once the command has written them.
    static bool Ready(pid_t& service, std::string& directory)
    {
        return Eventually([&] {
            std::istringstream text(FileText(Output()));
            for (std::string line; std::getline(text, line);) {
                if (line == "ready") {
                    return service > 0;
                }
                if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) {
                    service = std::stoi(line);
                }
                directory = line.front() == '/' ? line : directory;
            }
            return false;
        });
    }
};

TEST_F(VexaSession, EndsEverythingHoweverItEnds)
{
    struct Case {
        const char* end;  // of the command
        int signal;       // to the session, once it is ready
        int status;
        bool cleansUp;
    };
    const Case cases[] = {{"sleep 600 & exit 7", 0, 7, true}, {"kill -9 $$", 0, 137, true},
        {"exec sleep 600", SIGTERM, 143, true}, {"exec sleep 600", SIGKILL, 137, false}};
    for (const Case& way : cases) {
        SCOPED_TRACE(std::string(way.end) + " " + std::to_string(way.signal));
        ChildProcess session = Start(way.end);
        pid_t service = -1;
        std::string directory;
        ASSERT_TRUE(Ready(service, directory)) << FileText(Output());
        if (way.signal != 0) {
            session.Signal(way.signal);
        }
        EXPECT_EQ(ExitStatus(session), way.status);
        EXPECT_TRUE(Eventually([&] { return !IsRunning(service); }));
        const auto folder = std::filesystem::path(directory).parent_path();
        EXPECT_EQ(std::filesystem::exists(folder), !way.cleansUp);
        std::filesystem::remove_all(folder);
    }
    ChildProcess noCommand({VEXA_SESSION, "--", "/no/such/command"});
    EXPECT_EQ(ExitStatus(noCommand), 127);
    ChildProcess noManager({VEXA_SESSION, "--samgrd", "/bin/false", "--", "true"});
    EXPECT_EQ(ExitStatus(noManager), 125);
}

}  // namespace
