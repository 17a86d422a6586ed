// SPDX-License-Identifier: Apache-2.0
// Starts a migration and watches it to its end. The watch goes on when the service dies and comes back.
#include <chrono>
#include <cstdio>
#include <thread>

#include "native_migrate/migrate_results.h"
#include "native_migrate/migrate_server_kits.h"

using namespace VEXA::UpdateEngine;

int main(int argc, char** argv)
{
    if (argc > 1) {
        fprintf(stderr, "watch_migration: not expected: %s\n", argv[1]);
        return 2;
    }
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
    if (error.errorNum != 0) {
        fprintf(stderr, "%s\n", error.message.c_str());
    }
    for (const ErrorMessage& message : error.data) {
        fprintf(stderr, "%s\n", message.errorMessage.c_str());
    }
    if (error.errorNum != 0 && error.errorNum != MIGRATE_ERROR_SOME_PACKAGES) {
        return 1;
    }

    // Events come and go with connections; what counts is the state. A question that finds the service dead starts it.
    auto lastAnswer = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - lastAnswer < std::chrono::seconds(30)) {
        MigrateInfo info;
        BusinessError ignored;
        if (kits.GetMigrateInfo(MigrateStage::NONE, info, ignored) == 0) {
            lastAnswer = std::chrono::steady_clock::now();
            const auto status = static_cast<TaskStatus>(info.migrateProgress.status);
            if (status == TaskStatus::IDLE) {
                puts("there is nothing to move");
                return 0;
            }
            if (status == TaskStatus::FINISHED || status == TaskStatus::FAILED) {
                kits.Off();
                puts(status == TaskStatus::FINISHED ? "everything was moved" : "something was not moved");
                return status == TaskStatus::FINISHED ? 0 : 1;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    fprintf(stderr, "the service stays away\n");
    return 1;
}
