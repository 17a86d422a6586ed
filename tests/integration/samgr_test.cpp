// SPDX-License-Identifier: Apache-2.0
// The manager among real processes: this one is the client. The others run the same program:
//   serve ID    serves ID until it is ended; every request gets its process id
//   load ID     loads ID and prints its process id
#include <atomic>

#include "samgr_world.h"
#include "vexa/ipc/context_object.h"
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
constexpr int32_t kHangs = 3;
constexpr int32_t kEnds = 4;

class TestWorld : public SamgrWorld {
public:
    TestWorld()
    {
        AddProfile(kService, SAMGR_PEER, R"(, "arguments": ["serve", "1"])");
        AddProfile(kHangs, "/bin/sh",
            R"(, "arguments": ["-c", "trap '' TERM; exec >&- 2>&-; sleep 9 & echo $$! >$$VEXA_RUNTIME_DIR.child; wait"])"
            R"(, "startTimeout": 60)");
        AddProfile(kEnds, "/bin/true", "");
    }
};

pid_t PidOf(const sptr<IRemoteObject>& object)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    return object != nullptr && object->SendRequest(1, data, reply, option) == 0 ? reply.ReadInt32() : -1;
}

class PeerStub : public IPCObjectStub {
    int32_t OnRemoteRequest(uint32_t, MessageParcel&, MessageParcel& reply, MessageOption&) override
    {
        return reply.WriteInt32(getpid()) ? 0 : 1;
    }
};

class LoadCallback : public SystemAbilityLoadCallbackStub {
public:
    void OnLoadSystemAbilitySuccess(int32_t, const sptr<IRemoteObject>&) override {}
    void OnLoadSystemAbilityFail(int32_t) override { ++failures; }
    std::atomic<int> failures{0};
};

class Samgr : public testing::Test {
protected:
    // The process has one runtime directory.
    static TestWorld& World()
    {
        static TestWorld world;
        return world;
    }

    void SetUp() override
    {
        World().StartManager();
        ASSERT_TRUE(Eventually([this] { return Reach() != nullptr; }));
    }
    void TearDown() override
    {
        World().EndManager(SIGINT);
        // The next test must not take the dead one for its own.
        EXPECT_TRUE(Eventually([this] { return Reach() == nullptr; }));
    }
    sptr<ISystemAbilityManager> Reach()
    {
        return manager_ = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }

    sptr<ISystemAbilityManager> manager_;
};

TEST_F(Samgr, ServicesOutliveAKilledManagerAndRegisterWithTheNext)
{
    const pid_t service = PidOf(manager_->LoadSystemAbility(kService, 5));
    const sptr<LoadCallback> callback(new LoadCallback);
    EXPECT_EQ(manager_->LoadSystemAbility(kHangs, callback), SAMGR_OK);
    World().EndManager(SIGKILL);
    EXPECT_TRUE(Eventually([&] { return callback->failures == 1; }, 2s));

    const auto start = steady_clock::now();
    SetUp();
    // A load that comes first finds the living service and starts none.
    EXPECT_EQ(PidOf(manager_->LoadSystemAbility(kService, 5)), service);
    EXPECT_EQ(manager_->LoadSystemAbility(kEnds, 5), nullptr);
    const auto took = steady_clock::now() - start;
    EXPECT_TRUE(took >= 200ms && took < 2s);
    EXPECT_TRUE(service > 0 && kill(service, SIGKILL) == 0);
    EXPECT_TRUE(
        Eventually([&] { return FileText(World().LogFile()).find("service 1 has ended") != std::string::npos; }));
}

TEST_F(Samgr, WhatIsRemovedUnderLivingProcessesIsMadeAgain)
{
    const std::string run = RuntimeDirectory();
    const pid_t service = PidOf(manager_->LoadSystemAbility(kService, 5));
    ASSERT_GT(service, 0);
    // Whoever comes anew reaches the manager, and by it the service.
    const auto isReached = [&] {
        return ExitStatus(ChildProcess(
                   {"sh", "-c", "test \"$(\"$0\" load 1)\" = $1", SAMGR_PEER, std::to_string(service)})) == 0;
    };
    for (const std::string removed : {"/samgr.sock", "/samgr.lock", "/peers", ""}) {
        std::error_code isMadeAgainMeanwhile;
        std::filesystem::remove_all(run + removed, isMadeAgainMeanwhile);
        EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(run + "/samgr.lock") && isReached(); }, 5s))
            << removed;
    }
    // Another one has the lock of the new directory: the first leaves it, and its service moves over.
    ASSERT_TRUE(World().Manager().Stop());
    ASSERT_TRUE(RemoveUnderOthers(run));
    ChildProcess second = StartLogged({SAMGRD, "--profiles", World().Profiles()}, World().LogFile());
    EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(run + "/samgr.sock"); }));
    World().Manager().Signal(SIGCONT);
    EXPECT_EQ(World().EndManager(0), 3);
    EXPECT_TRUE(
        Eventually([&] { return Reach() != nullptr && PidOf(manager_->CheckSystemAbility(kService)) == service; }));
    second.Signal(SIGTERM);
    EXPECT_EQ(ExitStatus(std::move(second)), 0);
    EXPECT_FALSE(std::filesystem::exists(run + "/samgr.sock")) << "it stopped in order";
    EXPECT_EQ(kill(service, SIGKILL), 0);
}

TEST_F(Samgr, AnOrderlyStopEndsThePrograms)
{
    const pid_t service = PidOf(manager_->LoadSystemAbility(kService, 5));
    std::filesystem::remove(RuntimeDirectory() + ".child");
    const sptr<LoadCallback> callback(new LoadCallback);
    EXPECT_EQ(manager_->LoadSystemAbility(kHangs, callback), SAMGR_OK);
    pid_t stubborn = -1;
    EXPECT_TRUE(
        Eventually([&] { return std::ifstream(RuntimeDirectory() + ".child") >> stubborn && IsRunning(stubborn); }));
    const auto start = steady_clock::now();
    World().Manager().Signal(SIGTERM);
    EXPECT_TRUE(Eventually([&] { return callback->failures == 1 && !IsRunning(service); }, 1500ms));
    // The closed output of a program does not keep it busy.
    const std::string stat = "/proc/" + std::to_string(World().Manager().Pid()) + "/stat";
    EXPECT_TRUE(Eventually([&] { return FileText(stat).find(") S ") != std::string::npos; }));
    EXPECT_TRUE(Eventually([&] { return !IsRunning(stubborn); }, 4s));
    const auto killed = steady_clock::now();
    EXPECT_GE(killed - start, 2s);
    EXPECT_EQ(World().EndManager(SIGTERM), 0);
    EXPECT_LT(steady_clock::now() - killed, std::chrono::milliseconds(END_MILLISECONDS)) << "it waited for the dead";
}

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc < 3) {
        return RUN_ALL_TESTS();
    }
    const int32_t id = atoi(argv[2]);
    const auto manager = [] { return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager(); };
    if (argv[1] == std::string("load")) {
        const pid_t pid = manager() != nullptr ? PidOf(manager()->LoadSystemAbility(id, 5)) : -1;
        printf("%d\n", pid);
        return pid > 0 ? 0 : 1;
    }
    // A manager may be killed before it has answered.
    const sptr<IRemoteObject> object(new PeerStub);
    return Eventually([&] { return manager() != nullptr && manager()->AddSystemAbility(id, object) == SAMGR_OK; })
               ? pause()
               : 1;
}
