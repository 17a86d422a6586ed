// SPDX-License-Identifier: Apache-2.0
#include "daemon/service_table.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "samgr_limits.h"
#include "samgr_log.h"

namespace VEXA::samgr {

namespace {

// How the program ended, and what it said last.
std::string EndReason(
    const Profile* profile, pid_t pid, const ProgramEnd& end, bool isRegistered, const std::string& said)
{
    const std::string program = (profile != nullptr ? profile->program : "program") + "[" + std::to_string(pid) + "]";
    if (end.startErrno != 0) {
        return program + " can't be started: " + end.startStep + ": " + strerror(end.startErrno);
    }
    const std::string how =
        end.bySignal ? " was ended by signal " + std::to_string(end.status) + " (" + strsignal(end.status) + ")"
                     : " ended with status " + std::to_string(end.status);
    return program + how + (isRegistered ? "" : " before it registered") + said;
}

// The last line of a program as the end of a reason, cut between two characters.
std::string Said(const std::string& line)
{
    size_t length = std::min(line.size(), kMaxLastLine);
    while (length > 0 && length < line.size() && (line[length] & 0xC0) == 0x80) {
        --length;
    }
    return line.empty() ? line : ": " + line.substr(0, length);
}

}  // namespace

class ServiceTable::ObjectRecipient : public IRemoteObject::DeathRecipient {
public:
    ObjectRecipient(const wptr<ServiceTable>& table, int32_t id) : table_(table), id_(id) {}
    void OnRemoteDied(const wptr<IRemoteObject>& object) override
    {
        if (const auto table = table_.Promote()) {
            table->OnObjectDied(id_, object);
        }
    }

private:
    const wptr<ServiceTable> table_;
    const int32_t id_;
};

ServiceTable::ServiceTable(Setting setting) : setting_(std::move(setting)) {}

void ServiceTable::SetProfiles(const std::vector<ProfilePtr>& profiles)
{
    MutexLock lock(mutex_);
    for (auto& [id, service] : services_) {
        service.profile = nullptr;
    }
    for (const ProfilePtr& profile : profiles) {
        services_[profile->id].profile = profile;
    }
}

ServiceTable::Service* ServiceTable::Find(int32_t id)
{
    const auto found = services_.find(id);
    return found != services_.end() && found->second.profile != nullptr ? &found->second : nullptr;
}

// The started program of that process, if it was started for that service.
ServiceTable::Program* ServiceTable::FindProgram(int32_t id, pid_t pid)
{
    const auto found = programs_.find(pid);
    return found != programs_.end() && found->second.id == id ? &found->second : nullptr;
}

bool ServiceTable::Lives(const Service& service)
{
    return service.object != nullptr && !service.object->IsObjectDead();
}

ServiceTable::Service* ServiceTable::FindFor(const Caller& caller, int32_t id, int32_t& result)
{
    Service* const service = Find(id);
    const bool isAllowed = service != nullptr && service->profile->lookup.Allows(caller);
    result = isAllowed ? SAMGR_OK : service != nullptr ? SAMGR_NOT_ALLOWED : SAMGR_NO_PROFILE;
    return isAllowed ? service : nullptr;
}

int32_t ServiceTable::Check(int32_t id, const Caller& caller, sptr<IRemoteObject>& object)
{
    int32_t result = SAMGR_OK;
    MutexLock lock(mutex_);
    const Service* service = FindFor(caller, id, result);
    object = service != nullptr && Lives(*service) ? service->object : nullptr;
    return result;
}

int32_t ServiceTable::Load(int32_t id, const Caller& caller, LoadDone done)
{
    int32_t result = SAMGR_OK;
    MutexLock lock(mutex_);
    Service* const service = FindFor(caller, id, result);
    if (service == nullptr) {
        return result;
    }
    if (stopped_ || service->waiting.size() >= kMaxWaitingLoads) {
        return SAMGR_BUSY;
    }
    if (Lives(*service)) {
        const LoadOutcome outcome{id, SAMGR_OK, service->object, {}};
        lock.Unlock();
        done(outcome);
        return SAMGR_OK;
    }
    service->waiting.push_back(std::move(done));
    if (service->phase == Phase::IDLE) {
        service->phase = Phase::WAITING_TO_START;
        service->due = std::max(service->throttle.EarliestStart(setting_.now()), setting_.startsFrom);
        lock.Unlock();
        setting_.wake();
    }
    return SAMGR_OK;
}

int32_t ServiceTable::Add(int32_t id, const Caller& caller, const sptr<IRemoteObject>& object)
{
    if (object == nullptr || !object->IsProxyObject()) {
        return SAMGR_BAD_REQUEST;
    }
    const sptr<IRemoteObject::DeathRecipient> recipient(new ObjectRecipient(this, id));
    Completions completions;
    {
        MutexLock lock(mutex_);
        Service* service = Find(id);
        if (service == nullptr) {
            return SAMGR_NO_PROFILE;
        }
        Program* const program = FindProgram(id, caller.pid);
        if (program == nullptr && !service->profile->registrars.Allows(caller)) {
            return SAMGR_NOT_ALLOWED;
        }
        if (Lives(*service)) {
            return service->object == object && service->owner == caller.pid ? SAMGR_OK : SAMGR_ALREADY_REGISTERED;
        }
        Finish(*service, {id, SAMGR_OK, object, {}}, completions);  // alone of these may throw
        service->object = object;
        service->recipient = recipient;
        service->owner = caller.pid;
        service->ownerUid = caller.uid;
        if (program != nullptr) {
            program->registered = true;
        }
    }
    // The notice of an object that is dead already follows at once, and finds it in the table.
    object->AddDeathRecipient(recipient);
    SAMGR_LOGI("service %{public}d is registered by process %{public}d", id, caller.pid);
    Run(completions);
    return SAMGR_OK;
}

int32_t ServiceTable::Remove(int32_t id, const Caller& caller)
{
    sptr<IRemoteObject> object;
    sptr<IRemoteObject::DeathRecipient> recipient;
    {
        MutexLock lock(mutex_);
        const auto found = services_.find(id);
        if (found == services_.end() || found->second.object == nullptr || caller.pid <= 0 ||
            found->second.owner != caller.pid) {
            return SAMGR_NOT_ALLOWED;
        }
        object = found->second.object;
        recipient = found->second.recipient;
        found->second.object = nullptr;
    }
    object->RemoveDeathRecipient(recipient);
    SAMGR_LOGI("service %{public}d is withdrawn by process %{public}d", id, caller.pid);
    return SAMGR_OK;
}

std::string ServiceTable::List(const Caller& caller)
{
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> list(cJSON_CreateArray(), &cJSON_Delete);
    MutexLock lock(mutex_);
    for (const auto& [id, service] : services_) {
        if (service.profile != nullptr && service.profile->lookup.Allows(caller) &&
            !Describe(id, service, list.get())) {
            throw std::bad_alloc();
        }
    }
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(list.get()), &cJSON_free);
    return text != nullptr ? std::string(text.get()) : throw std::bad_alloc();
}

bool ServiceTable::Describe(int32_t id, const Service& service, cJSON* list)
{
    static constexpr const char* phases[] = {"idle", "waiting", "starting"};
    const bool isRunning = Lives(service);
    const bool hasProcess = isRunning || service.phase == Phase::STARTING;
    cJSON* const object = cJSON_CreateObject();
    const auto text = [object](const char* key, const char* value) {
        return cJSON_AddStringToObject(object, key, value) != nullptr;
    };
    const auto number = [object](const char* key, double value, bool isThere) {
        return (isThere ? cJSON_AddNumberToObject(object, key, value) : cJSON_AddNullToObject(object, key)) != nullptr;
    };
    return cJSON_AddItemToArray(list, object) != 0 && number("id", id, true) &&
           text("program", service.profile->program.c_str()) &&
           text("state", isRunning ? "running" : phases[static_cast<size_t>(service.phase)]) &&
           number("pid", isRunning ? service.owner : service.program, hasProcess) &&
           number("user", isRunning ? service.ownerUid : service.profile->uid, hasProcess) &&
           number("starts", service.starts, true) && number("failures", service.failures, true) &&
           text("lastFailure", service.lastFailure.c_str());
}

ServiceTable::TimePoint ServiceTable::RunDue()
{
    Completions completions;
    TimePoint next = TimePoint::max();
    {
        MutexLock lock(mutex_);
        const TimePoint now = setting_.now();
        for (auto& [id, service] : services_) {
            try {
                if (service.phase == Phase::WAITING_TO_START && service.due <= now) {
                    Start(id, service, completions);
                } else if (service.phase == Phase::STARTING && service.due <= now) {
                    TimeOut(id, service, completions);
                }
            } catch (const std::bad_alloc&) {
                next = std::min(next, now + kRetryPause);  // it is as it was
                continue;
            }
            if (service.phase != Phase::IDLE) {
                next = std::min(next, service.due);
            }
        }
    }
    Run(completions);
    return next;
}

// The fork happens under the lock: a program that registers is then known by its id for certain.
void ServiceTable::Start(int32_t id, Service& service, Completions& completions)
{
    if (service.profile == nullptr) {
        Finish(service, {id, SAMGR_NO_PROFILE, nullptr, ResultText(SAMGR_NO_PROFILE)}, completions);
        return;
    }
    // The table's entry is allocated before the program runs: its lack would leave a program that nobody knows.
    decltype(programs_) started{{0, {id, setting_.now(), false}}};
    std::string reason;
    const pid_t pid = setting_.starter->Start(*service.profile, reason);
    if (pid <= 0) {
        reason = service.profile->program + " can't be started: " + reason;
        Finish(service, {id, SAMGR_PROGRAM_MISSING, nullptr, reason}, completions);
        return;
    }
    service.phase = Phase::STARTING;
    service.program = pid;
    ++service.starts;
    service.due = setting_.now() + service.profile->startTimeout;
    auto program = started.extract(started.begin());
    program.key() = pid;
    programs_.insert(std::move(program));
    SAMGR_LOGI("service %{public}d: started %{public}s[%{public}d]", id, service.profile->program.c_str(), pid);
}

void ServiceTable::TimeOut(int32_t id, Service& service, Completions& completions) const
{
    setting_.starter->Kill(service.program);
    const std::string reason = "process " + std::to_string(service.program) +
                               " did not register in time and was ended" +
                               Said(setting_.starter->LastLine(service.program));
    Finish(service, {id, SAMGR_PROGRAM_SLOW, nullptr, reason}, completions);
}

// Leaves the service idle; those who wait get the outcome once the lock is free.
void ServiceTable::Finish(Service& service, const LoadOutcome& outcome, Completions& completions)
{
    std::string reason = outcome.reason;  // first, as it may throw
    completions.push_back({outcome, {}});
    completions.back().waiting.swap(service.waiting);
    service.phase = Phase::IDLE;
    if (outcome.error != SAMGR_OK) {
        NoteFailure(outcome.systemAbilityId, service, std::move(reason));
    }
}

void ServiceTable::NoteFailure(int32_t id, Service& service, std::string reason)
{
    SAMGR_LOGE("service %{public}d: %{public}s", id, reason.c_str());
    ++service.failures;
    service.lastFailure = std::move(reason);
}

void ServiceTable::Run(const Completions& completions)
{
    for (const auto& [outcome, waiting] : completions) {
        for (const LoadDone& done : waiting) {
            done(outcome);
        }
    }
}

void ServiceTable::OnProgramEnd(pid_t pid, const ProgramEnd& end)
{
    Completions completions;
    {
        MutexLock lock(mutex_);
        for (auto& [id, service] : services_) {
            if (service.owner == pid) {
                service.object = nullptr;  // sooner than the word of its socket
            }
        }
        const auto program = programs_.find(pid);
        if (program == programs_.end()) {
            return;
        }
        const auto [id, startedAt, registered] = program->second;
        Service& service = services_[id];
        const bool hasFailed = end.bySignal || end.status != 0;
        std::string reason =
            EndReason(service.profile.get(), pid, end, registered, Said(setting_.starter->LastLine(pid)));
        if (service.phase == Phase::STARTING && service.program == pid) {
            const int32_t error = end.startErrno != 0 ? SAMGR_PROGRAM_MISSING : SAMGR_PROGRAM_EXITED;
            Finish(service, {id, error, nullptr, std::move(reason)}, completions);
        } else if (registered && hasFailed && !stopped_) {
            NoteFailure(id, service, std::move(reason));
        }
        service.throttle.Note(
            {startedAt, setting_.now(), registered, hasFailed, end.bySignal && end.status == SIGKILL});
        programs_.erase(program);
    }
    Run(completions);
}

void ServiceTable::OnObjectDied(int32_t id, const wptr<IRemoteObject>& object)
{
    MutexLock lock(mutex_);
    const auto found = services_.find(id);
    if (found != services_.end() && found->second.object != nullptr &&
        wptr<IRemoteObject>(found->second.object) == object) {
        found->second.object = nullptr;
        SAMGR_LOGI("service %{public}d has ended", id);
    }
}

void ServiceTable::Stop()
{
    Completions completions;
    {
        MutexLock lock(mutex_);
        stopped_ = true;
        for (auto& [id, service] : services_) {
            if (service.phase != Phase::IDLE) {
                Finish(service, {id, SAMGR_BUSY, nullptr, "the manager is stopping"}, completions);
            }
        }
    }
    Run(completions);
}

}  // namespace VEXA::samgr
