// SPDX-License-Identifier: Apache-2.0
// The manager's memory: which services there are, which of them run, and who waits for which.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "daemon/profile.h"
#include "daemon/program.h"
#include "daemon/restart_throttle.h"
#include "load_outcome.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

struct cJSON;

namespace VEXA::samgr {

// Requests come from any thread and never block; programs are started, and time-outs noticed, by RunDue, which one
// thread calls when `wake` has been called or the time that it returned has come.
class ServiceTable : public RefBase {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using LoadDone = std::function<void(const LoadOutcome&)>;

    struct Setting {
        ProgramStarter* starter = nullptr;
        std::function<TimePoint()> now;
        std::function<void()> wake;
        // No program is started before this time, so that services that have outlived another manager register first.
        TimePoint startsFrom;
    };
    explicit ServiceTable(Setting setting);

    // Replaces all profiles. Running services stay; one without a profile can't be reached any more.
    void SetProfiles(const std::vector<ProfilePtr>& profiles);

    // SAMGR_OK: `object` is the service, null while it does not run.
    int32_t Check(int32_t id, const Caller& caller, sptr<IRemoteObject>& object);
    // SAMGR_OK: `done` is called once, maybe before this returns. Anything else: it is not called.
    int32_t Load(int32_t id, const Caller& caller, LoadDone done);
    int32_t Add(int32_t id, const Caller& caller, const sptr<IRemoteObject>& object);
    int32_t Remove(int32_t id, const Caller& caller);
    // The services that the caller may look up, as ISystemAbilityManager's list.
    std::string List(const Caller& caller);

    // Does what is due; returns when it wants to be called next, TimePoint::max() for not at all.
    TimePoint RunDue();
    // A started program has ended.
    void OnProgramEnd(pid_t pid, const ProgramEnd& end);
    // Fails all waiting loads, and refuses further ones.
    void Stop();

private:
    enum class Phase { IDLE, WAITING_TO_START, STARTING };

    struct Service {
        ProfilePtr profile;
        sptr<IRemoteObject> object;  // registered, null when there is none
        sptr<IRemoteObject::DeathRecipient> recipient;
        pid_t owner = -1;  // the process that registered it last, and its user
        uid_t ownerUid = static_cast<uid_t>(-1);
        Phase phase = Phase::IDLE;
        TimePoint due;       // of the start or of its time-out, unless idle
        pid_t program = -1;  // the one whose registration the start waits for
        RestartThrottle throttle;
        std::vector<LoadDone> waiting;
        int32_t starts = 0;
        int32_t failures = 0;
        std::string lastFailure;
    };
    struct Program {
        int32_t id = 0;
        TimePoint startedAt;
        bool registered = false;
    };
    struct Completion {
        LoadOutcome outcome;
        std::vector<LoadDone> waiting;
    };
    using Completions = std::vector<Completion>;
    class ObjectRecipient;

    Service* Find(int32_t id) VEXA_REQUIRES(mutex_);
    // Returns the service to whoever may look it up; null, with the result for the others.
    Service* FindFor(const Caller& caller, int32_t id, int32_t& result) VEXA_REQUIRES(mutex_);
    Program* FindProgram(int32_t id, pid_t pid) VEXA_REQUIRES(mutex_);
    // Appends the service to a list. False without memory.
    static bool Describe(int32_t id, const Service& service, cJSON* list);
    static bool Lives(const Service& service);
    void Start(int32_t id, Service& service, Completions& completions) VEXA_REQUIRES(mutex_);
    static void NoteFailure(int32_t id, Service& service, std::string reason);
    void TimeOut(int32_t id, Service& service, Completions& completions) const VEXA_REQUIRES(mutex_);
    static void Finish(Service& service, const LoadOutcome& outcome, Completions& completions);
    static void Run(const Completions& completions);
    void OnObjectDied(int32_t id, const wptr<IRemoteObject>& object);

    const Setting setting_;
    Mutex mutex_{LockRank::ServiceTable};
    std::map<int32_t, Service> services_ VEXA_GUARDED_BY(mutex_);
    std::map<pid_t, Program> programs_ VEXA_GUARDED_BY(mutex_);  // started, and not known to have ended
    bool stopped_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::samgr
