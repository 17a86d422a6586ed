// SPDX-License-Identifier: Apache-2.0
#include "request_pair.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "bench_world.h"
#include "cpu.h"
#include "idle_clients.h"
#include "measure.h"
#include "native_migrate/migrate_server_kits.h"
#include "recovery.h"

namespace VEXA::bench {
namespace {

constexpr size_t THREADS = 4;
constexpr size_t ROUNDS = 100;

bool StartMigrate(size_t)
{
    UpdateEngine::BusinessError error;
    error.errorNum = 1;
    return UpdateEngine::MigrateServerKits::GetKitsInstance().StartMigrate(error) == 0 && error.errorNum == 0;
}

Side StartMigrateSide(const World& world)
{
    return world.RequestSide("request.start_migrate", &StartMigrate);
}

// Measures by how much the client's heap and both processes' memory grow over many requests, once everything is warm.
bool MeasureGrowth(const World& world, size_t calls, Report& report)
{
    const Side side = StartMigrateSide(world);
    std::vector<float> samples(calls);  // touched, so that it is resident before the first look
    samples.clear();
    std::vector<float> warmUp;
    if (!CallRepeatedly(side, 0, 20'000, warmUp)) {
        return false;
    }
    const auto heap = [] {
        const auto info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    const double heapBefore = heap();
    const double clientBefore = ResidentBytes(getpid());
    const double serviceBefore = ResidentBytes(world.Service());
    if (!CallRepeatedly(side, 0, calls, samples)) {
        return false;
    }
    const double heapGrowth = heap() - heapBefore;
    const double clientGrowth = ResidentBytes(getpid()) - clientBefore;
    const double serviceGrowth = ResidentBytes(world.Service()) - serviceBefore;
    report.push_back({"request.heap_growth", Percentile(samples, 0.5), Percentile(samples, 0.99),
        {{"calls", static_cast<double>(calls)}, {"bytes", heapGrowth}, {"resident_bytes", clientGrowth},
            {"service_resident_bytes", serviceGrowth}}});
    return true;
}

bool CompareOver(std::vector<Side> sides, const std::string& suffix, size_t calls, size_t threads, Report& report)
{
    const size_t perRound = std::max<size_t>(calls / ROUNDS / threads, 1);
    return calls == 0 || Compare(std::move(sides), {suffix, ROUNDS, perRound, threads}, report);
}

bool CompareStartMigrate(const World& world, const std::string& suffix, size_t calls, size_t threads, Report& report)
{
    return CompareOver({world.RawSide("raw.stream", StartMigrateSizes(), threads), StartMigrateSide(world)}, suffix,
        calls, threads, report);
}

bool CompareText(const World& world, const std::string& suffix, size_t bytes, size_t calls, Report& report)
{
    const auto ask = [bytes](size_t) { return AskText(bytes); };
    return CompareOver(
        {world.RawSide("raw", TextSizes(bytes)), world.RequestSide("request", ask)}, suffix, calls, 1, report);
}

// The same calls without the idle clients before and after, so that a slow change of the machine counts for nothing.
bool MeasureBesideIdle(const World& world, size_t clients, Report& report)
{
    constexpr size_t calls = 40'000;
    Report without;
    Report with;
    if (!CompareStartMigrate(world, "", calls / 2, 1, without)) {
        return false;
    }
    const double bytesBefore = ResidentBytes(world.Service());
    IdleClients idle(world.Self(), clients);
    if (!idle.AreServed()) {
        return false;
    }
    const double bytes = ResidentBytes(world.Service()) - bytesBefore;
    if (!CompareStartMigrate(world, "", calls, 1, with) || !idle.End() ||
        !CompareStartMigrate(world, "", calls / 2, 1, without)) {
        return false;
    }
    // A list is the raw side and the request side of each comparison.
    const double base = (without[1].p50 + without[3].p50) / 2;
    Entry entry{"request.idle_" + std::to_string(clients), with[1].p50, with[1].p99, {}};
    entry.values = {{"p50_without_us", base}, {"p50_ratio", entry.p50 / base},
        {"service_bytes_per_client", bytes / static_cast<double>(clients)}};
    report.push_back(std::move(entry));
    return true;
}

bool MeasurePinned(const World& world, const RequestCalls& calls, Report& report)
{
    const PinnedToOneCpu pinned(world.Processes());
    return CompareStartMigrate(world, "", calls.pinned, 1, report) &&
           CompareText(world, ".reply_64k", size_t{64} * 1024, calls.texts64k, report) &&
           CompareText(world, ".reply_1m", size_t{1024} * 1024, calls.texts1m, report) &&
           (calls.heap == 0 || MeasureGrowth(world, calls.heap, report)) &&
           (calls.idleClients == 0 || MeasureBesideIdle(world, calls.idleClients, report));
}

}  // namespace

bool MeasureRequests(const RequestCalls& calls, Report& report)
{
    World world;
    return world.IsReady() && MeasurePinned(world, calls, report) &&
           CompareStartMigrate(world, ".free", calls.free, 1, report) &&
           CompareStartMigrate(world, ".4threads", calls.threads, THREADS, report) &&
           (calls.kills == 0 || MeasureRecovery(world, calls.kills, report));
}

}  // namespace VEXA::bench
