// SPDX-License-Identifier: Apache-2.0
// Restores the application named on the command line and waits until the service says that it has. The observer is
// registered again by itself when the service dies and comes back.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "native_migrate/json_parse.h"
#include "native_migrate/migrate_records.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"

using namespace VEXA::UpdateEngine;

namespace {

class Observer : public ReserveMigrateStatusObserverStub {
public:
    explicit Observer(std::string package) : package_(std::move(package)) {}

    // Runs on a thread of the library's pool; the service waits for the result.
    int32_t OnRestoreStatusChanged(const std::string& statusJsonString) override
    {
        std::vector<RestoreEventInfo> events;
        if (JsonParse::JsonStrToStruct(statusJsonString, events) != JsonError::SUCCESS) {
            fprintf(stderr, "not understood: %s\n", statusJsonString.c_str());
        }
        for (const RestoreEventInfo& event : events) {
            const std::string& package = event.restoreAppInfo.packageName;
            printf("%s: status %d %s\n", package.c_str(), event.status, event.errorInfo.reason.c_str());
            if (package == package_) {
                const std::lock_guard<std::mutex> lock(mutex_);
                status_ = static_cast<TaskStatus>(event.status);
                changed_.notify_all();
            }
        }
        return 0;
    }
    bool WaitForEnd(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(
            lock, limit, [this] { return status_ == TaskStatus::FINISHED || status_ == TaskStatus::FAILED; });
        return status_ == TaskStatus::FINISHED;
    }

private:
    const std::string package_;
    std::mutex mutex_;
    std::condition_variable changed_;
    TaskStatus status_ = TaskStatus::IDLE;
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || argv[1][0] == '-') {
        fprintf(stderr, "usage: reserve_observer PACKAGE, not %s\n", argv[argc - 1]);
        return 2;
    }
    ReserveMigrateKits kits;
    std::string reply;
    const VEXA::sptr<Observer> observer(new Observer(argv[1]));
    int32_t result = kits.RegisterCallback("example", VEXA::sptr<IReserveMigrateStatusObserver>(observer), reply);
    if (result == 0) {
        result = kits.RestoreApp(argv[1], "", reply);
    }
    if (result != 0) {
        fprintf(stderr, "the restoration was not started: %d\n", result);
        return 1;
    }
    const bool isRestored = observer->WaitForEnd(std::chrono::seconds(60));
    kits.UnRegisterCallback("example", reply);
    return isRestored ? 0 : 1;
}
