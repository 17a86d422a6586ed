// SPDX-License-Identifier: Apache-2.0
// The manager among real processes: this one is the client. The others run the same program:
//   serve ID    serves ID until it is ended; every request gets its process id
//   load ID     loads ID and prints its process id
#include <grp.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <set>

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
constexpr int32_t kDescribes = 4;
constexpr int32_t kFails = 10;
constexpr gid_t kForeignGroup = 54321;
const bool kIsRoot = geteuid() == 0;

// tests/data/samgr.txt has the profiles, and what is expected of them.
class TestWorld : public SamgrWorld {
public:
    TestWorld()
    {
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = 500;
        setrlimit(RLIMIT_NOFILE, &descriptors);
        setgroups(1, &kForeignGroup);  // as root; no program of another user keeps it
        setenv("SAMGR_PEER", SAMGR_PEER, 1);
        setenv("PEER_DIRECTORY", "/usr", 1);
        setenv("PEER_VARIABLE", "the manager's", 1);
        setenv("NOTIFY_SOCKET", "/nowhere", 1);
        signal(SIGUSR2, SIG_IGN);
        setenv("XDG_RUNTIME_DIR", "/nowhere", 1);
        std::ifstream file(NM_TEST_DATA_DIR "/samgr.txt");
        std::string script;
        int32_t id = 0;
        for (std::string kind, text; std::getline(file >> kind, text);) {
            text.erase(0, 1);
            if (kind[0] == '+') {
                id = std::stoi(kind);
                const std::string user = kIsRoot && id == kDescribes ? R"(, "user": "daemon")" : "";
                text += ' ';
                AddProfile(id, text.substr(0, text.find(' ')), text.substr(text.find(' ')) + user);
            } else if (kind == "|") {
                script += text + "\n";
            } else if (kind == "!") {
                failures.emplace_back(id, text);
            } else if (kind == "=" && (kIsRoot || text.find(": user ") == std::string::npos)) {
                lines.push_back(text);
            }
        }
        setenv("PEER_SCRIPT", script.c_str(), 1);
    }

    std::vector<std::pair<int32_t, std::string>> failures;  // loads that fail, and why
    std::vector<std::string> lines;                         // of the log, when they have been tried
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
        EXPECT_NE(FileText(World().LogFile()).find("the manager stops"), std::string::npos);
        // The next test must not take the dead one for its own.
        EXPECT_TRUE(Eventually([this] { return Reach() == nullptr; }));
    }
    sptr<ISystemAbilityManager> Reach()
    {
        return manager_ = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }

    sptr<ISystemAbilityManager> manager_;
};

TEST_F(Samgr, ProgramsGetWhatTheirProfileSaysAndFailWithTheirReason)
{
    rlimit descriptors{};
    prlimit(World().Manager().Pid(), RLIMIT_NOFILE, nullptr, &descriptors);
    EXPECT_EQ(descriptors.rlim_cur, descriptors.rlim_max);  // the manager's own
    const auto start = steady_clock::now();
    std::string reason;
    for (const auto& [id, expected] : World().failures) {
        EXPECT_EQ(manager_->LoadSystemAbility(id, 20, &reason), nullptr) << expected;
        EXPECT_NE(reason.find(expected), std::string::npos) << reason;
    }
    EXPECT_LT(steady_clock::now() - start, 15s);
    const std::string log = FileText(World().LogFile());
    for (const std::string& line : World().lines) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
#ifndef __SANITIZE_ADDRESS__  // whose companion opens descriptors to look at types
    // Where descriptors are short, each step of a start fails in turn.
    std::set<std::string> reasons;
    for (rlimit few{1, 500}; reason.find("no room") == std::string::npos; ++few.rlim_cur) {
        prlimit(World().Manager().Pid(), RLIMIT_NOFILE, &few, nullptr);
        manager_->LoadSystemAbility(kFails, 20, &reason);
        reasons.insert(reason.substr(0, reason.find('[')));
    }
    const std::string failed = "/bin/sh can't be started: ";
    EXPECT_EQ(reasons,
        (std::set{failed + "/dev/null can't be opened", failed + "pipe: Too many open files", std::string("/bin/sh")}));
#endif
    pid_t child = -1;  // of the slow one
    std::ifstream(RuntimeDirectory() + ".child") >> child;
    EXPECT_GT(child, 0);
    EXPECT_TRUE(Eventually([child] { return !IsRunning(child); }, 5s));
}

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
    EXPECT_EQ(manager_->LoadSystemAbility(kDescribes, 5), nullptr);
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
