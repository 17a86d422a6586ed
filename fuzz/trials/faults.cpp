// SPDX-License-Identifier: Apache-2.0
// The trial of faults: in each work, in each process that takes part, each call of each function fails once. That may
// cost an error; the next attempts have to succeed, and no process may crash, hang or lose a notice. Prints a table,
// and each trial that went wrong. The program is its own service and client.
//   faults [WORK [ROLE [FUNCTION [CALL]]]]   all, or only those that are named, from that call on
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <optional>

#include "beside_me.h"
#include "fault_control.h"
#include "samgr_world.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::trials;

constexpr int kService = 65801;
constexpr int kNoMemory = 4;  // the manager's status, as at any bad_alloc that it can't make good
constexpr std::chrono::seconds kMostTime(10);
enum Code : uint32_t { PID, CALL_BACK, EXCHANGE };
enum Outcome : int { AT_ONCE, AFTER_ERROR, AFTER_THROW, DEAF, CRASHED, HUNG, OUTCOMES };

FaultControl& Control()
{
    static FaultControl* const control = [] {
        const int fd = open(getenv("FAULT_CONTROL"), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* const memory = ftruncate(fd, sizeof(FaultControl)) == 0
                                 ? mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                                 : MAP_FAILED;
        return memory != MAP_FAILED ? static_cast<FaultControl*>(memory) : (abort(), nullptr);
    }();
    return *control;
}

// Sends a request with that object; its answer.
int32_t Send(const sptr<IRemoteObject>& to, Code code, const sptr<IRemoteObject>& with = nullptr,
    MessageParcel* answer = nullptr, int how = MessageOption::TF_SYNC)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(how, 3);
    if (to == nullptr || (with != nullptr && !data.WriteRemoteObject(with))) {
        return -1;
    }
    return to->SendRequest(code, data, answer != nullptr ? *answer : reply, option);
}

class Stub : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        ++calls;
        const sptr<IRemoteObject> object = code != PID ? data.ReadRemoteObject() : nullptr;
        if (code == PID) {
            return reply.WriteInt32(getpid()) ? 0 : 1;
        }
        if (code == CALL_BACK) {
            return Send(object, PID) == 0 && Send(object, PID, nullptr, nullptr, MessageOption::TF_ASYNC) == 0 ? 0 : 2;
        }
        return reply.WriteRemoteObject(object) && reply.WriteRemoteObject(new Stub) ? 0 : 3;
    }
    std::atomic<int> calls{0};
};

class Watcher : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override { ++told; }
    std::atomic<int> told{0};
};

// Its works are true when they have succeeded.
class Client {
public:
    bool Connect()
    {
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        service_ = manager != nullptr ? manager->CheckSystemAbility(kService) : nullptr;
        service_ = manager != nullptr && service_ == nullptr ? manager->LoadSystemAbility(kService, 5) : service_;
        return Ask();
    }
    bool Call() { return Ask() || (service_ != nullptr && service_->IsObjectDead() && Connect()); }
    bool CallBack()
    {
        const sptr<Stub> callback(new Stub);
        return Send(service_, CALL_BACK, callback) == 0 &&
               Eventually([&] { return callback->calls == 2; }, std::chrono::seconds(3));
    }
    bool Exchange()
    {
        const sptr<IRemoteObject> own(new Stub);
        MessageParcel reply;
        return Send(service_, EXCHANGE, own, &reply) == 0 && reply.ReadRemoteObject() == own &&
               Send(reply.ReadRemoteObject(), PID) == 0;
    }
    bool Die()
    {
        const sptr<Watcher> watchers[] = {new Watcher, new Watcher};
        for (const auto& watcher : watchers) {
            service_->AddDeathRecipient(watcher);
        }
        kill(pid, SIGKILL);
        const bool areTold = Eventually([&] { return watchers[0]->told > 0 && watchers[1]->told > 0; }, kMostTime);
        if (!areTold || watchers[0]->told + watchers[1]->told > 2) {
            _exit(DEAF);  // nothing makes up for a wrong notice
        }
        return Connect();
    }

    int pid = -1;

private:
    bool Ask()
    {
        MessageParcel reply;
        pid = Send(service_, PID, nullptr, &reply) == 0 ? reply.ReadInt32() : -1;
        return pid > 0;
    }

    sptr<IRemoteObject> service_;
};

struct Work {
    const char* name;
    bool (Client::*act)();
    bool (Client::*again)();
};
// The manager's start is tried by whoever connects.
constexpr Work kWorks[] = {{"connecting", &Client::Connect, &Client::Connect}, {"call", &Client::Call, &Client::Call},
    {"callback", &Client::CallBack, &Client::CallBack}, {"object", &Client::Exchange, &Client::Exchange},
    {"death", &Client::Die, &Client::Connect}, {"start", &Client::Connect, &Client::Connect}};

int RunClient(const Work& work)
{
    Client client;
    Outcome outcome = AT_ONCE;
    const auto attempt = [&](bool (Client::*act)()) {
        try {
            return (client.*act)() || (outcome = std::max(outcome, AFTER_ERROR), false);
        } catch (const std::bad_alloc&) {
            return outcome = AFTER_THROW, false;
        }
    };
    if (work.act != &Client::Connect && !Eventually([&] { return client.Connect(); })) {
        return DEAF;
    }
    const int before = client.pid;
    Control().isArmed = true;
    const bool succeeds = attempt(work.act) || Eventually([&] { return attempt(work.again); }, kMostTime);
    Control().isArmed = false;
    const Outcome result = outcome;
    if (!succeeds || !Eventually([&] { return attempt(&Client::CallBack) && attempt(&Client::Exchange); }, kMostTime)) {
        return DEAF;
    }
    return before > 0 && work.act != &Client::Die && client.Call() && client.pid != before ? CRASHED : result;
}

class Trial {
public:
    Trial()
    {
        (void)!freopen(BesideMe("faults.log").c_str(), "w", stderr);
        setenv("FAULT_CONTROL", (world_.Folder() + "/control").c_str(), 1);
        setenv("LD_PRELOAD", BesideMe("libfault_preload.so").c_str(), 1);
        world_.AddProfile(kService, BesideMe("faults"),
            R"(, "arguments": ["--serve"], "environment": {"FAULT_ROLE": "2"}, "lookup": ["*"])");
        StartManager();
    }
    // Fails every call of each function in the processes of that role, until there are no more.
    void Each(const Work& work, int role, const std::string& only, int first)
    {
        for (int function = 0; function < static_cast<int>(std::size(kFunctions)); ++function) {
            if (!only.empty() && only != kFunctions[function]) {
                continue;
            }
            int counts[OUTCOMES] = {};
            Control().role = role;
            Control().function = function;
            for (int n = first;; ++n) {
                Control().nth = n;
                Control().calls = 0;
                const int outcome = Run(work);
                Control().isArmed = false;
                if (outcome >= DEAF) {
                    constexpr const char* kNames[] = {"deaf", "crashed", "hung"};
                    printf("  %s, call %d of the %s's %s: %s\n", work.name, n, kRoles[role], kFunctions[function],
                        kNames[outcome - DEAF]);
                    fflush(stdout);
                    StartManager();
                }
                if (Control().calls < n) {
                    break;
                }
                ++counts[outcome];
            }
            const int wrong = counts[DEAF] + counts[CRASHED] + counts[HUNG];
            printf("%-10s %-7s %-14s at once %4d, after an error %4d, after bad_alloc %4d, wrong %2d\n", work.name,
                kRoles[role], kFunctions[function], counts[AT_ONCE], counts[AFTER_ERROR], counts[AFTER_THROW], wrong);
            fflush(stdout);
            wrong_ += wrong;
            tried_ += counts[AT_ONCE] + counts[AFTER_ERROR] + counts[AFTER_THROW] + wrong;
        }
    }
    int Report() const
    {
        printf("%d faults, %d wrong\n", tried_, wrong_);
        return wrong_ == 0 ? 0 : 1;
    }

private:
    void StartManager()
    {
        setenv("FAULT_ROLE", "3", 1);
        manager_ = ChildProcess();  // the last one ends first
        const std::string socket = world_.Folder() + "/run/samgr.sock";
        unlink(socket.c_str());
        manager_ = ChildProcess({SAMGRD, "--profiles", world_.Profiles()});
        if (!Control().isArmed) {
            Eventually([&] { return access(socket.c_str(), F_OK) == 0; });
        }
    }
    int Run(const Work& work)
    {
        const bool isStart = work.name == std::string("start");
        if (isStart) {
            manager_ = ChildProcess();
            Control().isArmed = true;
            StartManager();
        }
        setenv("FAULT_ROLE", "1", 1);
        ChildProcess client({BesideMe("faults"), work.name});
        int outcome = AT_ONCE;
        const auto hasEnded = [&] {
            if (!IsRunning(manager_.Pid())) {
                // It may end only where it can't start, and then with a status.
                const int status = ExitStatus(std::move(manager_));
                const bool isOrderly = isStart ? status > 0 && status < 128 : status == kNoMemory;
                outcome = !isOrderly ? int{CRASHED} : isStart ? int{AFTER_ERROR} : int{AFTER_THROW};
                Control().isArmed = false;
                StartManager();
            }
            return !IsRunning(client.Pid());
        };
        if (!Eventually(hasEnded, 4 * kMostTime)) {
            return HUNG;
        }
        return std::max(outcome, std::min<int>(ExitStatus(std::move(client)), CRASHED));
    }

    const SamgrWorld world_;
    ChildProcess manager_;
    int tried_ = 0;
    int wrong_ = 0;
};

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "--serve") {
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        const sptr<IRemoteObject> stub(new Stub);
        while (manager != nullptr && manager->AddSystemAbility(kService, stub) != SAMGR_OK) {
            usleep(20'000);
        }
        while (manager != nullptr && access(getenv("FAULT_CONTROL"), F_OK) == 0) {
            usleep(200'000);  // it ends with the trial
        }
        return 1;
    }
    const bool isClient = getenv("FAULT_ROLE") != nullptr;
    std::optional<Trial> trial;
    if (!isClient) {
        trial.emplace();
    }
    for (const Work& work : kWorks) {
        if (!isClient && (mode.empty() || mode == work.name)) {
            const bool isStart = work.name == std::string("start");
            for (int role = isStart ? 3 : 1; role <= 3; ++role) {
                if (argc < 3 || argv[2] == std::string(kRoles[role])) {
                    trial->Each(work, role, argc > 3 ? argv[3] : "", argc > 4 ? atoi(argv[4]) : 1);
                }
            }
        } else if (isClient && mode == work.name) {
            _exit(RunClient(work));
        }
    }
    return trial ? trial->Report() : 2;
}
