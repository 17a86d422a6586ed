// SPDX-License-Identifier: Apache-2.0
// Commands whose answer comes later by a callback, and the start of any service.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <mutex>
#include <thread>

#include "migratectl_request.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "native_migrate/set_backup_file_own_stub.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace migratectl {

namespace {

// Keeps the first notice of SetBackupFileOwn.
class OwnNotice : public SetBackupFileOwnStub {
public:
    void OnSetBackupFileOwnFinished(int32_t errorCode) override
    {
        std::call_once(first_, [&] { code_.set_value(errorCode); });
    }
    std::future<int32_t> Code() { return code_.get_future(); }

private:
    std::once_flag first_;
    std::promise<int32_t> code_;
};

// Prints every event, on the thread that brings it.
class Observer : public ReserveMigrateStatusObserverStub {
public:
    explicit Observer(const Options& options) : options_(options) {}

    int32_t OnRestoreStatusChanged(const std::string& statusJsonString) override
    {
        if (options_.json) {
            PrintJson(ToJson(statusJsonString));
            return 0;
        }
        std::string lines;
        const JsonContext events(statusJsonString);
        for (const JsonContext& event : events) {
            const std::string reason = ShowJson(event["errorInfo"]["reason"]);
            lines += Fit(StatusName(NumberOf(event["status"])), kStatusWidth) + ' ' +
                     Clean(ShowJson(event["restoreAppInfo"]["packageName"])) + (reason.empty() ? "" : "  ") +
                     Clean(reason) + '\n';
        }
        Print(lines);
        return 0;
    }

private:
    static constexpr size_t kStatusWidth = 8;  // of the longest word
    const Options options_;
};

}  // namespace

int OwnBackups(const CommandLine& line)
{
    constexpr std::chrono::seconds kPatience(60);
    const sptr<OwnNotice> notice(new OwnNotice);
    auto code = notice->Code();
    const int32_t result = Client<MigrateServerKits>().SetBackupFileOwn(sptr<ISetBackupFileOwnInterface>(notice));
    BusinessError error;
    if (result == MIGRATE_SUCCESS) {
        if (code.wait_for(kPatience) != std::future_status::ready) {
            fprintf(stderr, "migratectl: own: the service did not say that it has finished\n");
            return EXIT_REFUSED;
        }
        error.errorNum = code.get();
        error.message = error.errorNum != 0 ? "the backup files can't be owned" : "";
    }
    return Finish(line.options, line.command, result, error);
}

int WatchRestorations(const CommandLine& line)
{
    const sptr<Observer> observer(new Observer(line.options));
    const std::string caller = "migratectl-" + std::to_string(getpid());
    auto& kits = Client<ReserveMigrateKits>();
    std::string reply;
    const int32_t result = kits.RegisterCallback(caller, sptr<IReserveMigrateStatusObserver>(observer), reply);
    if (const int status = Judge(line.options, line.command, result); status != EXIT_DONE) {
        return status;
    }
    if (line.number < 0) {
        pause();  // until a signal ends the process
    }
    std::this_thread::sleep_for(std::chrono::seconds(line.number));
    kits.UnRegisterCallback(caller, reply);
    return EXIT_DONE;
}

int LoadService(const CommandLine& line)
{
    constexpr int32_t kSeconds = 5;
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    BusinessError error;
    if (manager != nullptr && manager->LoadSystemAbility(line.number, kSeconds, &error.message) == nullptr) {
        error.errorNum = MIGRATE_ERROR_NOTHING;
    }
    return Finish(line.options, line.command, manager != nullptr ? MIGRATE_SUCCESS : MIGRATE_UNREACHABLE, error);
}

}  // namespace migratectl
