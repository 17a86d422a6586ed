// SPDX-License-Identifier: Apache-2.0
// The storm: a real manager, a service and clients of the library, killed in turn at random instants. After each kill
// every client has to reach the service again, with its callback registered, and every watch over an instance of the
// service that has died has to have been told once. The program is its own service and client.
//   storm SECONDS [SEED]
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <map>
#include <random>

#include "beside_me.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

constexpr int kClients = 4;
constexpr uint32_t kPid = 0;  // a request of the storm's own

// The file in memory by which the processes know of each other without the library. It is all zeros at first.
struct Board {
    std::atomic<uint64_t> round;           // goes up after each kill
    std::atomic<pid_t> service;            // the instance that registered last
    std::atomic<uint64_t> well[kClients];  // the latest round in which that client found all well
    std::atomic<int> wrong[kClients];      // notices that were missing, or told twice
    std::atomic<uint64_t> told;            // notices
    std::atomic<bool> isOver;              // the storm; services that have lost their manager end
};

Board& TheBoard()
{
    static Board* const board = [] {
        const int fd = open(getenv("STORM_BOARD"), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const bool hasRoom = ftruncate(fd, sizeof(Board)) == 0;
        void* const memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        return hasRoom && memory != MAP_FAILED ? static_cast<Board*>(memory) : (abort(), nullptr);
    }();
    return *board;
}

sptr<ISystemAbilityManager> Manager()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
}

// Answers StartMigrate with its process id, after one event to the caller's own callback.
class Service : public IPCObjectStub {
public:
    Service() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code == kPid) {
            return reply.WriteInt32(getpid()) ? 0 : 1;
        }
        data.ReadInterfaceToken();
        MutexLock lock(mutex_);
        sptr<IRemoteObject> callback = callbacks_[IPCSkeleton::GetCallingPid()];
        if (code != uint32_t(MigrateRequestCode::START_MIGRATE)) {
            callback = data.ReadRemoteObject();
            callbacks_[IPCSkeleton::GetCallingPid()].Swap(callback);
            lock.Unlock();
            return 0;
        }
        lock.Unlock();
        if (callback != nullptr) {
            MessageParcel event;
            MessageParcel nothing;
            event.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
            event.WriteUint32(1);
            event.WriteString("{}");
            callback->SendRequest(MIGRATE_PROGRESS_CODE, event, nothing, option);
        }
        return reply.WriteString("{\"errorNum\":" + std::to_string(getpid()) + "}") ? 0 : 1;
    }

private:
    Mutex mutex_{LockRank::Program};
    std::map<pid_t, sptr<IRemoteObject>> callbacks_ VEXA_GUARDED_BY(mutex_);
};

int Serve()
{
    const sptr<IRemoteObject> service(new Service);
    int32_t result = IPC_DEAD_OBJECT;
    while ((result == IPC_DEAD_OBJECT || result == IPC_CONNECTION_LOST) && !TheBoard().isOver) {
        const auto manager = Manager();
        result = manager != nullptr ? manager->AddSystemAbility(MIGRATE_SERVICE_ID, service) : result;
        usleep(1000);
    }
    TheBoard().service = getpid();
    // Two managers in a row may have started one each.
    for (sptr<IRemoteObject> found; result == 0 && (found == nullptr || found == service) && !TheBoard().isOver;) {
        usleep(100'000);
        const auto manager = Manager();
        found = manager != nullptr ? manager->CheckSystemAbility(MIGRATE_SERVICE_ID) : nullptr;
    }
    return 1;
}

class Watcher : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        ++told;
        ++TheBoard().told;
    }
    std::atomic<int> told{0};
};

int RunClient(int number)
{
    MigrateServerKits& kits = MigrateServerKits::GetKitsInstance();
    std::atomic<int> events{0};
    Eventually([&] { return kits.On({[&](auto&&...) { ++events; }}) == 0; });
    sptr<IRemoteObject> watched;
    sptr<Watcher> watcher;
    for (;;) {
        const uint64_t round = TheBoard().round;
        const auto manager = Manager();
        const sptr<IRemoteObject> found =
            manager != nullptr ? manager->CheckSystemAbility(MIGRATE_SERVICE_ID) : nullptr;
        if (found != nullptr && found != watched) {
            // The last instance has died, or is an orphan of another manager and watched no more.
            const bool hasDied = watched != nullptr && watched->IsObjectDead();
            if (hasDied && !(Eventually([&] { return watcher->told > 0; }) && watcher->told == 1)) {
                ++TheBoard().wrong[number];
            }
            watched = found;
            watcher = new Watcher;
            watched->AddDeathRecipient(watcher);
        }
        // Only the instance that the manager knows stays.
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        const bool isKnown = found != nullptr && found->SendRequest(kPid, data, reply, option) == 0;
        BusinessError error;
        events = 0;
        if (isKnown && kits.StartMigrate(error) == 0 && events == 1 && error.errorNum == reply.ReadInt32()) {
            TheBoard().well[number] = round;
        }
        usleep(500);
    }
}

class Storm {
public:
    explicit Storm(uint32_t seed) : random_(seed)
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        (void)!freopen(world_.LogFile().c_str(), "a", stderr);
        setenv("STORM_BOARD", (world_.Folder() + "/board").c_str(), 1);
        setenv("KOLOG_LEVEL", "error", 1);
        world_.AddProfile(MIGRATE_SERVICE_ID, BesideMe("storm"), R"(, "arguments": ["--serve"], "lookup": ["*"])");
        for (int i = 0; i <= kClients; ++i) {
            Start(i);
        }
    }
    // Kills the manager, or up to three of the others in a row; then all has to be well again. A client tries once to
    // register its callback again, for which the manager has to be there.
    bool Blow()
    {
        const bool isManager = Draw(3) == 0;
        for (int left = isManager ? 1 : 1 + Draw(3); left > 0; --left) {
            const int victim = isManager ? 0 : std::max(0, Draw(2 * kClients) - kClients + 1);
            const bool isService = !isManager && victim == 0;
            if (isService) {
                kill(std::max<pid_t>(TheBoard().service, 2), SIGKILL);
            } else {
                processes_[victim].Kill();
                Start(victim);
            }
            ++kills_[isManager ? 0 : isService ? 1 : 2];
            usleep(static_cast<useconds_t>(Draw(4000)));
        }
        while (waitpid(-1, nullptr, WNOHANG) > 0) {  // services whose manager was killed
        }
        const uint64_t round = ++TheBoard().round;
        const auto began = std::chrono::steady_clock::now();
        bool isWell = true;
        for (int i = 0; i < kClients; ++i) {
            const bool isDeaf = !Eventually([&] { return TheBoard().well[i] >= round; });
            if (isDeaf || TheBoard().wrong[i] > 0) {
                printf("round %" PRIu64 ": client %d (process %d) %s\n", round, i, processes_[1 + i].Pid(),
                    isDeaf ? "is deaf" : "missed a notice, or was told twice");
                isWell = false;
            }
        }
        longest_ = std::max(longest_, std::chrono::steady_clock::now() - began);
        return isWell;
    }
    void Report(double seconds) const
    {
        const int all = kills_[0] + kills_[1] + kills_[2];
        printf("%d kills (manager %d, service %d, clients %d), %.0f a second, %" PRIu64 " notices", all, kills_[0],
            kills_[1], kills_[2], all / seconds, TheBoard().told.load());
        printf("; longest recovery %.2f s\n", std::chrono::duration<double>(longest_).count());
    }

private:
    int Draw(int below) { return static_cast<int>(random_() % static_cast<uint32_t>(below)); }
    void Start(int number)
    {
        processes_[number] = number == 0 ? ChildProcess({SAMGRD, "--profiles", world_.Profiles()})
                                         : ChildProcess({BesideMe("storm"), "--client", std::to_string(number - 1)});
    }

    const SamgrWorld world_;
    std::mt19937 random_;
    ChildProcess processes_[1 + kClients];  // the manager first
    int kills_[3] = {};
    std::chrono::steady_clock::duration longest_{};
};

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "30";
    if (mode.starts_with("--")) {
        return mode == "--serve" ? Serve() : RunClient(atoi(argv[2]));
    }
    const uint32_t seed = argc > 2 ? static_cast<uint32_t>(atoi(argv[2])) : std::random_device()();
    setlinebuf(stdout);
    printf("seed %u\n", seed);
    Storm storm(seed);
    const auto began = std::chrono::steady_clock::now();
    const auto passed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count(); };
    bool isWell = true;
    for (; isWell && passed() < atoi(mode.c_str()); isWell = storm.Blow()) {
    }
    storm.Report(passed());
    TheBoard().isOver = true;
    return isWell ? 0 : 1;
}
