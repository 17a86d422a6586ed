// SPDX-License-Identifier: Apache-2.0
// The commands for reserved applications.
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>

#include "migratectl_migration.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "vexa/base/mutex.h"
#include "vexa/json/json_context.h"

namespace migratectl {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

namespace {

using Clock = std::chrono::steady_clock;

// The one client of this process. Not destroyed: its threads may outlive main.
ReserveMigrateKits& Kits()
{
    static auto* const kits = new ReserveMigrateKits;
    return *kits;
}

const char* StatusOf(const JsonContext& event)
{
    return StatusName(NumberOf(event["status"]));
}

void PrintEvents(const JsonContext& events)
{
    std::vector<Fields> rows;
    for (const JsonContext& event : events) {
        const JsonContext& app = event["restoreAppInfo"];
        rows.push_back({{"status", StatusOf(event)}, {"package", ShowJson(app["packageName"])},
            {"version", ShowJson(app["versionName"])}, {"scene", ShowJson(app["restoreScene"])},
            {"error", ShowJson(event["errorInfo"]["reason"])}});
    }
    PrintTable(rows);
}

void PrintApps(const JsonContext& apps)
{
    std::vector<Fields> rows;
    for (const JsonContext& app : apps) {
        rows.push_back({{"package", ShowJson(app["packageName"])}, {"version", ShowJson(app["versionName"])},
            {"code", ShowJson(app["versionCode"])}, {"scene", ShowJson(app["restoreScene"])},
            {"directory", ShowJson(app["scanSourceDir"])}});
    }
    PrintTable(rows);
}

// A reply that is a BusinessError.
BusinessError AsError(const std::string& text)
{
    const JsonContext root(text);
    BusinessError error;
    error.errorNum = static_cast<int32_t>(NumberOf(root["errorNum"]));
    error.message = ShowJson(root["message"]);
    return error;
}

// A request that is answered with a list.
template <typename Ask, typename... Arguments>
int List(const Options& options, const char* name, void (*print)(const JsonContext&), const Ask& ask,
    const Arguments&... arguments)
{
    std::string reply;
    const int32_t result = std::invoke(ask, Kits(), arguments..., reply);
    if (!options.json && result == MIGRATE_SUCCESS) {
        print(JsonContext(reply));
    }
    return Finish(options, name, result, BusinessError(), AsRawJson(reply));
}

// A request that is answered with an error only.
template <typename Ask, typename... Arguments>
int Change(const Options& options, const char* name, const Ask& ask, const Arguments&... arguments)
{
    std::string reply;
    const int32_t result = std::invoke(ask, Kits(), arguments..., reply);
    return Finish(options, name, result, result == MIGRATE_SUCCESS ? AsError(reply) : BusinessError(), NO_REPLY);
}

// Prints every event, and lets others wait for the next.
class Observer : public ReserveMigrateStatusObserverStub {
public:
    Observer(const Options& options, bool isSilent) : options_(options), isSilent_(isSilent) {}

    int32_t OnRestoreStatusChanged(const std::string& statusJsonString) override
    {
        MutexLock lock(mutex_);
        if (!isSilent_ && options_.json) {
            printf("%s\n", AsRawJson(statusJsonString).text.c_str());
        } else if (!isSilent_) {
            const JsonContext events(statusJsonString);
            for (const JsonContext& event : events) {
                printf("%-8s %s %s\n", StatusOf(event), ShowJson(event["restoreAppInfo"]["packageName"]).c_str(),
                    ShowJson(event["errorInfo"]["reason"]).c_str());
            }
        }
        fflush(stdout);
        count_++;
        changed_.NotifyAll();
        return 0;
    }
    // Waits until there have been more than `count` events; returns how many there have been.
    uint64_t Wait(uint64_t count, std::chrono::milliseconds limit)
    {
        MutexLock lock(mutex_);
        changed_.WaitFor(mutex_, limit, [&]() VEXA_REQUIRES(mutex_) { return count_ > count; });
        return count_;
    }

private:
    const Options options_;
    const bool isSilent_;
    Mutex mutex_{LockRank::Program};
    CondVar changed_;
    uint64_t count_ VEXA_GUARDED_BY(mutex_) = 0;
};

// Has an observer registered as long as it lives.
class Observation {
public:
    Observation(const Options& options, bool isSilent)
        : observer(new Observer(options, isSilent)), caller_("migratectl-" + std::to_string(getpid()))
    {
        result = Kits().RegisterCallback(caller_, sptr<IReserveMigrateStatusObserver>(observer), reply);
    }
    ~Observation()
    {
        if (result == MIGRATE_SUCCESS) {
            Kits().UnRegisterCallback(caller_, reply);
        }
    }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    const sptr<Observer> observer;
    std::string reply;
    int32_t result = 0;

private:
    const std::string caller_;
};

int Watch(const Options& options, int seconds)
{
    Observation observation(options, false);
    if (const int status = Judge(options, "watch", observation.result); status != EXIT_DONE) {
        return status;
    }
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (uint64_t count = 0; seconds < 0 || Clock::now() < end;) {
        count = observation.observer->Wait(count, std::chrono::milliseconds(200));
    }
    return EXIT_DONE;
}

// Events only announce; what counts is what the service says when it is asked.
int WaitForRestore(const Options& options, Observation& observation, const std::string& name)
{
    constexpr std::chrono::seconds kPatience(30);
    auto lastAnswer = Clock::now();
    for (uint64_t count = 0;;) {
        std::string text;
        const int32_t result = Kits().GetRestoreAppStatus(name, "", text);
        const auto now = Clock::now();
        if (result == MIGRATE_SUCCESS) {
            lastAnswer = now;
        } else if (now - lastAnswer > kPatience) {
            return Judge(options, "restore", result);
        }
        const JsonContext events(text);
        const int64_t status = events.size() > 0 ? NumberOf((*events.begin())["status"]) : -1;
        if (HasEnded(status) || status == static_cast<int64_t>(TaskStatus::IDLE)) {
            if (!options.json) {
                PrintEvents(events);
            }
            return status == static_cast<int64_t>(TaskStatus::FINISHED) ? EXIT_DONE : EXIT_INCOMPLETE;
        }
        count = observation.observer->Wait(count, std::chrono::milliseconds(500));
    }
}

int Restore(const CommandLine& line)
{
    std::optional<Observation> observation;
    if (line.wait) {
        observation.emplace(line.options, true);
        if (const int status = Judge(line.options, "restore", observation->result); status != EXIT_DONE) {
            return status;
        }
    }
    const int status = Change(line.options, "restore", &ReserveMigrateKits::RestoreApp, line.name, line.scene);
    return status == EXIT_DONE && observation ? WaitForRestore(line.options, *observation, line.name) : status;
}

void AddLists(CLI::App& reserve, CommandLine& line)
{
    auto* const list =
        AddCommand(reserve, line, "list", "The applications that are set aside, first those of priority", [&line] {
            return List(
                line.options, "list", &PrintApps, &ReserveMigrateKits::GetRestoreAppInfos, line.name, line.number);
        });
    list->add_option("name", line.name, "Only this one")->check(IS_NAME);
    list->add_option("--most", line.number, "At most so many");
    auto* const status = AddCommand(reserve, line, "status", "How their restorations stand", [&line] {
        return List(
            line.options, "status", &PrintEvents, &ReserveMigrateKits::GetRestoreAppStatus, line.name, line.scene);
    });
    status->add_option("name", line.name, "Only this one")->check(IS_NAME);
    status->add_option("--scene", line.scene, "Only those of this scene");
    auto* const check = AddCommand(reserve, line, "check", "Whether one can be restored", [&line] {
        std::string text;
        BusinessError error;
        const int32_t result = MigrateServerKits::GetKitsInstance().CheckAppRestore(line.name, text, error);
        if (!line.options.json && result == MIGRATE_SUCCESS) {
            const JsonContext reply(text);
            printf("%s %s\n", ShowJson(reply["canRestore"]).c_str(), ShowJson(reply["reason"]).c_str());
        }
        return Finish(line.options, "check", result, error, AsRawJson(text));
    });
    check->add_option("name", line.name)->required()->check(IS_NAME);
}

void AddChanges(CLI::App& reserve, CommandLine& line)
{
    auto* const restore =
        AddCommand(reserve, line, "restore", "Restores one to the target", [&line] { return Restore(line); });
    restore->add_option("name", line.name)->required()->check(IS_NAME);
    restore->add_option("--scene", line.scene, "What it is restored for");
    restore->add_flag("--wait", line.wait, "Until it is restored");
    auto* const clear = AddCommand(reserve, line, "clear", "Takes away what was restored of one",
        [&line] { return Change(line.options, "clear", &ReserveMigrateKits::ClearApp, line.name, line.scene); });
    clear->add_option("name", line.name)->required()->check(IS_NAME);
    clear->add_option("--scene", line.scene, "Only if it is of this scene");
    auto* const clearAll = AddCommand(reserve, line, "clear-all", "Takes away everything that was restored",
        [&line] { return Change(line.options, "clear-all", &ReserveMigrateKits::ClearAllVirtualData, line.scene); });
    clearAll->add_option("--scene", line.scene, "Only what is of this scene");
    auto* const priority = AddCommand(reserve, line, "priority", "Which are restored first", [&line] {
        return Change(
            line.options, "priority", &ReserveMigrateKits::AdjustAppPriority, line.name, std::to_string(line.number));
    });
    priority->add_option("name", line.name)->required()->check(IS_NAME);
    priority->add_option("priority", line.number, "Higher goes first; 0 unless set")->required();
}

}  // namespace

void AddReserveCommands(CLI::App& app, CommandLine& line)
{
    auto* const reserve = app.add_subcommand("reserve", "Reserved applications");
    reserve->require_subcommand(1);
    AddLists(*reserve, line);
    AddChanges(*reserve, line);
    auto* const watch = AddCommand(*reserve, line, "watch", "Shows every change of their status",
        [&line] { return Watch(line.options, line.number); });
    watch->add_option("--seconds", line.number, "For so long; else until interrupted");
}

}  // namespace migratectl
