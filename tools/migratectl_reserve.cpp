// SPDX-License-Identifier: Apache-2.0
// The commands for reserved applications.
#include <unistd.h>

#include <chrono>
#include <memory>

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

const char* StatusOf(const JsonContext& event)
{
    return StatusName(NumberOf(event["status"]));
}

void PrintEvents(const JsonContext& events)
{
    std::vector<std::vector<std::string>> rows;
    for (const JsonContext& event : events) {
        const JsonContext& app = event["restoreAppInfo"];
        rows.push_back({StatusOf(event), ShowJson(app["packageName"]), ShowJson(app["versionName"]),
            ShowJson(app["restoreScene"]), ShowJson(event["errorInfo"]["reason"])});
    }
    PrintTable({"status", "package", "version", "scene", "error"}, rows);
}

void PrintApps(const JsonContext& apps)
{
    std::vector<std::vector<std::string>> rows;
    for (const JsonContext& app : apps) {
        rows.push_back({ShowJson(app["packageName"]), ShowJson(app["versionName"]), ShowJson(app["versionCode"]),
            ShowJson(app["restoreScene"]), ShowJson(app["scanSourceDir"])});
    }
    PrintTable({"package", "version", "code", "scene", "directory"}, rows);
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

int Finish(const Options& options, const char* name, int32_t result, const std::string& reply, bool isError)
{
    const BusinessError error = isError && result == MIGRATE_SUCCESS ? AsError(reply) : BusinessError();
    if (options.json) {
        PrintJson(result, error, isError ? RawJson{"null"} : AsRawJson(reply));
    }
    return Judge(options, name, result, error);
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
    // Until there have been more than `count`; returns how many there have been.
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

// A client with an observer for its time.
class Observation {
public:
    Observation(const Options& options, bool isSilent)
        : observer(new Observer(options, isSilent)), caller_("migratectl-" + std::to_string(getpid()))
    {
        result = kits.RegisterCallback(caller_, sptr<IReserveMigrateStatusObserver>(observer), reply);
    }
    ~Observation()
    {
        if (result == MIGRATE_SUCCESS) {
            kits.UnRegisterCallback(caller_, reply);
        }
    }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    ReserveMigrateKits kits;
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
        const int32_t result = observation.kits.GetRestoreAppStatus(name, "", text);
        const auto now = Clock::now();
        if (result == MIGRATE_SUCCESS) {
            lastAnswer = now;
        } else if (now - lastAnswer > kPatience) {
            return Judge(options, "restore", result);
        }
        const JsonContext events(text);
        const std::string status = events.size() > 0 ? StatusOf(*events.begin()) : "";
        if (status == StatusName(static_cast<int64_t>(TaskStatus::FINISHED)) ||
            status == StatusName(static_cast<int64_t>(TaskStatus::FAILED)) ||
            status == StatusName(static_cast<int64_t>(TaskStatus::IDLE))) {
            if (!options.json) {
                PrintEvents(events);
            }
            return status == StatusName(static_cast<int64_t>(TaskStatus::FINISHED)) ? EXIT_DONE : EXIT_INCOMPLETE;
        }
        count = observation.observer->Wait(count, std::chrono::milliseconds(500));
    }
}

int Restore(const Options& options, const std::string& name, const std::string& scene, bool wait)
{
    std::string reply;
    if (!wait) {
        const int32_t result = ReserveMigrateKits().RestoreApp(name, scene, reply);
        return Finish(options, "restore", result, reply, true);
    }
    Observation observation(options, true);
    if (const int status = Judge(options, "restore", observation.result); status != EXIT_DONE) {
        return status;
    }
    const int32_t result = observation.kits.RestoreApp(name, scene, reply);
    const int status = Finish(options, "restore", result, reply, true);
    return status == EXIT_DONE ? WaitForRestore(options, observation, name) : status;
}

struct Arguments {
    std::string name;
    std::string scene;
    int32_t number = -1;
    bool wait = false;
};

using ArgumentsPtr = std::shared_ptr<Arguments>;

void AddLists(CLI::App& reserve, const Options& options, Action& action, const ArgumentsPtr& arguments)
{
    auto* const list = reserve.add_subcommand("list", "The applications that are set aside, first those of priority");
    list->add_option("name", arguments->name, "Only this one")->check(IS_NAME);
    list->add_option("--most", arguments->number, "At most so many");
    list->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string reply;
            const int32_t result = ReserveMigrateKits().GetRestoreAppInfos(arguments->name, arguments->number, reply);
            if (!options.json && result == MIGRATE_SUCCESS) {
                PrintApps(JsonContext(reply));
            }
            return Finish(options, "list", result, reply, false);
        };
    });
    auto* const status = reserve.add_subcommand("status", "How their restorations stand");
    status->add_option("name", arguments->name, "Only this one")->check(IS_NAME);
    status->add_option("--scene", arguments->scene, "Only those of this scene");
    status->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string reply;
            const int32_t result = ReserveMigrateKits().GetRestoreAppStatus(arguments->name, arguments->scene, reply);
            if (!options.json && result == MIGRATE_SUCCESS) {
                PrintEvents(JsonContext(reply));
            }
            return Finish(options, "status", result, reply, false);
        };
    });
    auto* const check = reserve.add_subcommand("check", "Whether one can be restored");
    check->add_option("name", arguments->name)->required()->check(IS_NAME);
    check->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string text;
            BusinessError error;
            const int32_t result = MigrateServerKits::GetKitsInstance().CheckAppRestore(arguments->name, text, error);
            const JsonContext reply(text);
            if (options.json) {
                PrintJson(result, error, AsRawJson(text));
            } else if (result == MIGRATE_SUCCESS) {
                printf("%s %s\n", ShowJson(reply["canRestore"]).c_str(), ShowJson(reply["reason"]).c_str());
            }
            return Judge(options, "check", result, error);
        };
    });
}

void AddChanges(CLI::App& reserve, const Options& options, Action& action, const ArgumentsPtr& arguments)
{
    auto* const restore = reserve.add_subcommand("restore", "Restores one to the target");
    restore->add_option("name", arguments->name)->required()->check(IS_NAME);
    restore->add_option("--scene", arguments->scene, "What it is restored for");
    restore->add_flag("--wait", arguments->wait, "Until it is restored");
    restore->callback([&options, &action, arguments] {
        action = [&options, arguments] { return Restore(options, arguments->name, arguments->scene, arguments->wait); };
    });
    auto* const clear = reserve.add_subcommand("clear", "Takes away what was restored of one");
    clear->add_option("name", arguments->name)->required()->check(IS_NAME);
    clear->add_option("--scene", arguments->scene, "Only if it is of this scene");
    clear->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string reply;
            const int32_t result = ReserveMigrateKits().ClearApp(arguments->name, arguments->scene, reply);
            return Finish(options, "clear", result, reply, true);
        };
    });
    auto* const clearAll = reserve.add_subcommand("clear-all", "Takes away everything that was restored");
    clearAll->add_option("--scene", arguments->scene, "Only what is of this scene");
    clearAll->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string reply;
            const int32_t result = ReserveMigrateKits().ClearAllVirtualData(arguments->scene, reply);
            return Finish(options, "clear-all", result, reply, true);
        };
    });
    auto* const priority = reserve.add_subcommand("priority", "Which are restored first");
    priority->add_option("name", arguments->name)->required()->check(IS_NAME);
    priority->add_option("priority", arguments->number, "Higher goes first; 0 unless set")->required();
    priority->callback([&options, &action, arguments] {
        action = [&options, arguments] {
            std::string reply;
            const int32_t result =
                ReserveMigrateKits().AdjustAppPriority(arguments->name, std::to_string(arguments->number), reply);
            return Finish(options, "priority", result, reply, true);
        };
    });
}

}  // namespace

void AddReserveCommands(CLI::App& app, const Options& options, Action& action)
{
    auto* const reserve = app.add_subcommand("reserve", "Reserved applications");
    reserve->require_subcommand(1);
    const auto arguments = std::make_shared<Arguments>();
    AddLists(*reserve, options, action, arguments);
    AddChanges(*reserve, options, action, arguments);
    auto* const watch = reserve->add_subcommand("watch", "Shows every change of their status");
    watch->add_option("--seconds", arguments->number, "For so long; else until interrupted");
    watch->callback([&options, &action, arguments] {
        action = [&options, arguments] { return Watch(options, arguments->number); };
    });
}

}  // namespace migratectl
