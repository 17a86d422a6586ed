// SPDX-License-Identifier: Apache-2.0
// Starts a migration and watches it to its end. The watch goes on when the service dies and comes back.
#include <chrono>
#include <cstdio>
#include <thread>

#include "native_migrate/migrate_server_kits.h"

using namespace VEXA::UpdateEngine;

int main()
{
    MigrateServerKits& kits = MigrateServerKits::GetKitsInstance();

    // Runs on a thread of the library's pool.
    ProgressCallback callback;
    callback.onProgress = [](const MigrateStage&, const EventInfo& event) {
        printf("%u%%, %llu s left\n", event.progress.percent,
            static_cast<unsigned long long>(event.progress.remainingTime));
    };
    if (const int32_t result = kits.On(callback); result != 0) {
        fprintf(stderr, "the service can't be reached: %d\n", result);
        return 1;
    }

    BusinessError error;
    if (const int32_t result = kits.StartMigrate(error); result != 0) {
        fprintf(stderr, "the migration was not started: %d\n", result);
        return 1;
    }
    // The others are migrated all the same.
    for (const ErrorMessage& message : error.data) {
        fprintf(stderr, "%s\n", message.errorMessage.c_str());
    }

    // Events come and go with connections; what counts is the state. A question that finds the service dead starts it.
    for (;;) {
        MigrateInfo info;
        BusinessError ignored;
        if (kits.GetMigrateInfo(MigrateStage::NONE, info, ignored) == 0) {
            const auto status = static_cast<TaskStatus>(info.migrateProgress.status);
            if (status == TaskStatus::FINISHED || status == TaskStatus::FAILED) {
                kits.Off();
                puts(status == TaskStatus::FINISHED ? "everything was moved" : "something was not moved");
                return status == TaskStatus::FINISHED ? 0 : 1;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}
