// SPDX-License-Identifier: Apache-2.0
#include "recovery.h"

#include <spawn.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "cpu.h"
#include "native_migrate/migrate_server_kits.h"

namespace VEXA::bench {
namespace {

using Clock = std::chrono::steady_clock;

double Microseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::micro>(time).count();
}

// A process that loads this program's libraries and ends: no service can be there sooner.
double LifeOfEmptyProgram(const std::string& program)
{
    std::string path = program;
    std::string option = "--nothing";
    char* const arguments[] = {path.data(), option.data(), nullptr};
    const auto start = Clock::now();
    pid_t process = -1;
    if (posix_spawn(&process, path.c_str(), nullptr, nullptr, arguments, environ) == 0) {
        waitpid(process, nullptr, 0);
    }
    return Microseconds(Clock::now() - start);
}

}  // namespace

bool MeasureRecovery(World& world, size_t kills, Report& report)
{
    // The service sends one event to each callback that is registered.
    struct Arrival {
        std::atomic<uint64_t> events{0};
        std::atomic<Clock::rep> last{0};
    };
    const auto arrival = std::make_shared<Arrival>();
    const auto note = [arrival](const auto&, const auto&) {
        arrival->last = Clock::now().time_since_epoch().count();
        ++arrival->events;
    };
    if (UpdateEngine::MigrateServerKits::GetKitsInstance().On({note}) != 0 ||
        !test::Eventually([&] { return arrival->events == 1; })) {
        return false;
    }
    std::vector<float> recoveries;
    std::vector<float> lives;
    std::vector<float> quotients;
    const PinnedToOneCpu pinned(world.Processes());
    for (size_t i = 0; i < kills; ++i) {
        const double life = LifeOfEmptyProgram(world.Self());
        const auto start = Clock::now();
        kill(world.Service(), SIGKILL);
        if (!test::Eventually([&] { return arrival->events == i + 2; }) || !world.IsReady()) {
            return false;
        }
        const Clock::time_point end{Clock::duration(arrival->last.load())};
        const double recovery = Microseconds(end - start);
        lives.push_back(static_cast<float>(life));
        recoveries.push_back(static_cast<float>(recovery));
        quotients.push_back(static_cast<float>(recovery / life));
    }
    report.push_back({"recovery", Percentile(recoveries, 0.5), Percentile(recoveries, 0.99),
        {{"empty_program_us", Percentile(lives, 0.5)}, {"ratio", Percentile(quotients, 0.5)}}});
    return UpdateEngine::MigrateServerKits::GetKitsInstance().Off() == 0;
}

}  // namespace VEXA::bench
