// SPDX-License-Identifier: Apache-2.0
// The manager among real processes: this one is the client. The others run the same program:
//   serve ID    serves ID until it is ended; every request gets its process id
//   load ID     loads ID and prints its process id
#include <grp.h>
#include <sys/resource.h>

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
constexpr int32_t kDescribes = 4;
constexpr int32_t kFirstFailure = 10;
constexpr gid_t kForeignGroup = 54321;
const bool kIsRoot = geteuid() == 0;

// Prints everything that the program was started with. The last descriptor is the one that lists the others.
constexpr char kDescription[] = R"sh(
    echo "$0 $1; $PEER_VARIABLE; ${NOTIFY_SOCKET-none}; $PWD; ${VEXA_RUNTIME_DIR##*/}"
    echo "session $(($(cut -d ' ' -f 6 /proc/$$/stat) - $$)), $(grep -Ec 'SigBlk:.0*$|SigIgn:.0*1000$' /proc/$$/status)"
    echo "user $(id -u) $(id -G) $HOME $USER ${XDG_RUNTIME_DIR-none}"
    echo /proc/self/fd/*
    printf "limit $(ulimit -Sn), input $(wc -c)" >&2
)sh";

// Loads that fail: the rest of the profile, and the reason.
const std::pair<const char*, const char*> kFailures[] = {
    {R"(, "arguments": ["-c", "echo no room >&2; echo end; exit 3"])",
        "ended with status 3 before it registered: no room"},
    {R"(, "arguments": ["-c", "kill -SEGV $$$$"])", "ended by signal 11"},
    {R"(, "arguments": ["-c", "printf late >&2; sleep 60 & echo $$! >$$VEXA_RUNTIME_DIR.child; wait"], "startTimeout": 0.3)",
        "in time and was ended: late"},
    {R"(, "arguments": ["${NOT_SET}"])", "NOT_SET"}, {R"(, "arguments": ["${HOME"])", "not closed"},
    {R"(, "directory": "/no/such")", "changing to its directory: No such file"}};

class TestWorld : public SamgrWorld {
public:
    TestWorld()
    {
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = 500;
        setrlimit(RLIMIT_NOFILE, &descriptors);
        setgroups(1, &kForeignGroup);  // as root; no program of another user keeps it
        setenv("PEER_SCRIPT", kDescription, 1);
        setenv("PEER_DIRECTORY", "/usr", 1);
        setenv("NOTIFY_SOCKET", "/nowhere", 1);
        signal(SIGUSR2, SIG_IGN);
        setenv("XDG_RUNTIME_DIR", "/nowhere", 1);
        AddProfile(kService, SAMGR_PEER, R"(, "arguments": ["serve", "1"])");
        AddProfile(kHangs, "/bin/sh",
            R"(, "arguments": ["-c", "trap '' TERM; exec >&- 2>&-; sleep 9 & echo $$! >$$VEXA_RUNTIME_DIR.child; wait"])"
            R"(, "startTimeout": 60)");
        AddProfile(kDescribes, "/bin/sh",
            R"(, "arguments": ["-c", "${PEER_SCRIPT}", "5$", "a${PEER_DIRECTORY}b${PEER_DIRECTORY}$${x}"],)"
            R"( "directory": "${PEER_DIRECTORY}", "environment": {"PEER_VARIABLE": "a b", "VEXA_RUNTIME_DIR": "/"})" +
                std::string(kIsRoot ? R"(, "user": "daemon")" : ""));
        int32_t id = kFirstFailure;
        for (const auto& [profile, reason] : kFailures) {
            AddProfile(id++, "/bin/sh", profile);
        }
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

TEST_F(Samgr, ProgramsGetWhatTheirProfileSaysAndNothingOfTheManagers)
{
    EXPECT_EQ(manager_->LoadSystemAbility(kDescribes, 5), nullptr);
    for (const char* line : {"5$ a/usrb/usr${x}; a b; none; /usr; run", "session 0, 2",
             kIsRoot ? "user 1 1 /usr/sbin daemon none" : "session 0, 2",
             "/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3", "limit 500, input 0"}) {
        const std::string logged = "]: " + std::string(line) + "\n";
        EXPECT_TRUE(Eventually([&] { return FileText(World().LogFile()).find(logged) != std::string::npos; })) << line;
    }
    EXPECT_NE(FileText(World().LogFile()).find(" I D001511/VEXA_SAMGR: sh["), std::string::npos) << "their level";
    rlimit descriptors{};
    prlimit(World().Manager().Pid(), RLIMIT_NOFILE, nullptr, &descriptors);
    EXPECT_EQ(descriptors.rlim_cur, descriptors.rlim_max);  // the manager's own
}

TEST_F(Samgr, FailedStartsAreReportedAtOnceWithTheirReason)
{
    int32_t id = kFirstFailure;
    for (const auto& [profile, expected] : kFailures) {
        const auto start = steady_clock::now();
        std::string reason;
        EXPECT_EQ(manager_->LoadSystemAbility(id++, 5, &reason), nullptr) << profile;
        EXPECT_LT(steady_clock::now() - start, 3s) << profile;
        EXPECT_NE(reason.find(expected), std::string::npos) << reason;
    }
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

TEST_F(Samgr, WhatTheSystemRefusesEndsTheManagerWithItsReason)
{
    const std::string file = World().LogFile();
    const std::string run = World().Folder() + "/refused";
    std::filesystem::create_directories(run + "/samgr.sock");
    const std::tuple<const char*, std::string, int, const char*> cases[] = {
        {"", RuntimeDirectory(), 3, "samgrd: another manager serves "},
        {"", file, 4, ": Not a directory"},
        {"", run, 4, "/samgr.sock: rename: Is a directory"},
        {"", World().Folder() + std::string(99, 'x'), 4, ": socket: File name too long"},
#ifndef __SANITIZE_ADDRESS__  // whose companion opens descriptors to look at types
        {"ulimit -n 8;", RuntimeDirectory(), 4, ": Too many open files"},
#endif
    };
    for (const auto& [prelude, directory, status, reason] : cases) {
        const std::string output = World().Folder() + "/output";
        std::filesystem::remove(output);
        const std::vector<std::string> command{"sh", "-c", std::string(prelude) + R"(exec "$0" "$@")", SAMGRD,
            "--profiles", World().Profiles(), "--runtime-dir", directory};
        EXPECT_EQ(ExitStatus(StartLogged(command, output)), status) << reason;
        EXPECT_NE(FileText(output).find(reason), std::string::npos) << FileText(output);
    }
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

// The programs that it starts have another working directory.
TEST_F(Samgr, ARuntimeDirectoryMayBeRelative)
{
    const std::string& folder = World().Folder();
    std::filesystem::create_directory(folder + "/relative");
    ChildProcess manager = StartLogged({"sh", "-c", "cd \"$0\" && exec \"$@\" 2>&-", folder, SAMGRD, "--profiles",
                                           World().Profiles(), "--runtime-dir", "relative/vexa"},
        World().LogFile());
    EXPECT_TRUE(Eventually([&] {
        return ExitStatus(ChildProcess({"env", "-C", folder, "VEXA_RUNTIME_DIR=", "XDG_RUNTIME_DIR=relative",
                   SAMGR_PEER, "load", "1"})) == 0;
    }));
    const std::string output = "/proc/" + std::to_string(manager.Pid()) + "/fd/2";
    EXPECT_EQ(std::filesystem::read_symlink(output), "/dev/null") << "a socket would get what is printed";
    manager.Signal(SIGTERM);
    EXPECT_EQ(ExitStatus(std::move(manager)), 0);
}

TEST_F(Samgr, ProfilesAreReadAgainOnRequest)
{
    World().AddProfile(20, SAMGR_PEER, R"(, "arguments": ["serve", "20"])");
    EXPECT_EQ(manager_->LoadSystemAbility(20, 5), nullptr);
    World().Manager().Signal(SIGHUP);
    EXPECT_TRUE(Eventually([&] { return manager_->LoadSystemAbility(20, 5) != nullptr; }));
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
