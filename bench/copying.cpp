// SPDX-License-Identifier: Apache-2.0
#include "copying.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

#include "migration_engine.h"
#include "support/processes.h"

namespace VEXA::bench {
namespace {

namespace fs = std::filesystem;
using UpdateEngine::MigrationEngine;
using UpdateEngine::TaskStatus;

class Deaf : public UpdateEngine::EngineListener {
    void OnTask(const UpdateEngine::TaskProgress&) override {}
    void OnRestore(const UpdateEngine::RestoreEventInfo&) override {}
};

double CpuOf(int who)
{
    rusage usage = {};
    getrusage(who, &usage);
    constexpr double kMicroseconds = 1e6;
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * kMicroseconds +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void Write(const fs::path& file, size_t bytes)
{
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    const std::string piece(std::min(bytes, size_t{1} << 20), 'x');
    for (size_t written = 0; written < bytes; written += piece.size()) {
        stream << piece;
    }
}

bool Migrate(const fs::path& source, const fs::path& target)
{
    Deaf deaf;
    std::string error;
    const auto engine = MigrationEngine::Open({source, target, "", 0, false}, deaf, error);
    if (engine == nullptr) {
        return false;
    }
    engine->Start();
    engine->StartAll();
    TaskStatus status = TaskStatus::RUNNING;
    test::Eventually(
        [&] {
            status = static_cast<TaskStatus>(engine->GetStatus(UpdateEngine::MigrateStage::NONE).status);
            return status == TaskStatus::FINISHED || status == TaskStatus::FAILED;
        },
        std::chrono::minutes(5));
    return status == TaskStatus::FINISHED;
}

bool CopyByCp(const fs::path& source, const fs::path& target)
{
    const pid_t process = fork();
    if (process == 0) {
        execlp("cp", "cp", "-a", (source / ".").c_str(), target.c_str(), nullptr);
        _exit(1);
    }
    int status = 0;
    return process > 0 && waitpid(process, &status, 0) == process && status == 0;
}

bool Measure(const std::string& name, size_t rounds, const fs::path& folder, int who,
    const std::function<bool(const fs::path&, const fs::path&)>& copy, Report& report)
{
    std::vector<std::pair<double, double>> samples;
    for (size_t round = 0; round <= rounds; ++round) {
        fs::remove_all(folder / "target");
        fs::create_directory(folder / "target");
        const double cpu = CpuOf(who);
        const auto begin = std::chrono::steady_clock::now();
        if (!copy(folder / "source", folder / "target")) {
            return false;
        }
        const std::chrono::duration<double, std::micro> clock = std::chrono::steady_clock::now() - begin;
        // The first is a warm-up: the machine's memory may be new.
        if (round > 0) {
            samples.emplace_back(clock.count(), CpuOf(who) - cpu);
        }
    }
    std::sort(samples.begin(), samples.end());
    report.push_back({name, samples[samples.size() / 2].first, samples.back().first,
        {{"cpu_us", samples[samples.size() / 2].second}}});
    return true;
}

}  // namespace

bool MeasureCopies(size_t rounds, Report& report)
{
    constexpr size_t kFiles = 10000;
    constexpr size_t kFileBytes = 4096;
    constexpr size_t kBigBytes = size_t{2} << 30;
    const char* const memory = "/dev/shm";
    const fs::path place = access(memory, W_OK) == 0 ? fs::path(memory) : fs::temp_directory_path();
    const fs::path folder = place / ("vexa-bench-" + std::to_string(getpid()));
    const fs::path source = folder / "source";
    bool done = true;
    const auto compare = [&](const std::string& what) {
        done = done && Measure("copy." + what, rounds, folder, RUSAGE_SELF, Migrate, report) &&
               Measure("copy.cp_" + what, rounds, folder, RUSAGE_CHILDREN, CopyByCp, report);
        fs::remove_all(folder);
    };
    if (rounds == 0) {
        return true;
    }
    for (size_t i = 0; i < kFiles; ++i) {
        Write(source / "package" / std::to_string(i % 100) / std::to_string(i), kFileBytes);
    }
    compare("files");
    Write(source / "package" / "file", kBigBytes);
    compare("big");
    for (const size_t packages : {size_t{1000}, size_t{10000}}) {
        for (size_t i = 0; i < packages; ++i) {
            Write(source / ("package" + std::to_string(i)) / "file", 100);
        }
        const std::string name = "copy.packages_" + std::to_string(packages);
        done = done && Measure(name, rounds, folder, RUSAGE_SELF, Migrate, report);
        fs::remove_all(folder);
    }
    return done;
}

}  // namespace VEXA::bench
