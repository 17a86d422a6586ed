// SPDX-License-Identifier: Apache-2.0
#include "measure.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "cpu.h"

namespace VEXA::bench {
namespace {

using Clock = std::chrono::steady_clock;

template <typename T>
T Middle(std::vector<T>& values, double share)
{
    if (values.empty()) {
        return 0;
    }
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<size_t>(place)];
}

double MicrosecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// All threads' calls of one turn; `wall` is from their common start to the end of the last.
bool CallFromThreads(const Side& side, const Turns& turns, std::vector<float>& samples, double& wall)
{
    std::vector<std::vector<float>> perThread(turns.threads);
    std::atomic<bool> succeeded{true};
    std::latch ready(static_cast<std::ptrdiff_t>(turns.threads));
    std::latch start(1);
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < turns.threads; ++i) {
        perThread[i].reserve(turns.calls);
        threads.emplace_back([&, i] {
            ready.count_down();
            start.wait();
            if (!CallRepeatedly(side, i, turns.calls, perThread[i])) {
                succeeded = false;
            }
        });
    }
    ready.wait();
    const auto started = Clock::now();
    start.count_down();
    threads.clear();
    wall = MicrosecondsSince(started);
    for (const auto& own : perThread) {
        samples.insert(samples.end(), own.begin(), own.end());
    }
    return succeeded;
}

bool TakeTurn(Side& side, const Turns& turns)
{
    std::vector<float> samples;
    samples.reserve(turns.calls * turns.threads);
    const double cpuBefore = CpuMicroseconds(getpid()) + CpuMicroseconds(side.server);
    double wall = 0;
    bool succeeded;
    if (turns.threads == 1) {
        const auto started = Clock::now();
        succeeded = CallRepeatedly(side, 0, turns.calls, samples);
        wall = MicrosecondsSince(started);
    } else {
        succeeded = CallFromThreads(side, turns, samples, wall);
    }
    side.cpu += CpuMicroseconds(getpid()) + CpuMicroseconds(side.server) - cpuBefore;
    side.walls.push_back(wall);
    side.samples.insert(side.samples.end(), samples.begin(), samples.end());
    side.medians.push_back(Percentile(samples, 0.5));
    return succeeded;
}

// The middle of the rounds' quotients: what disturbs the machine for a while disturbs both sides of a round alike.
double MiddleQuotient(const std::vector<double>& dividends, const std::vector<double>& divisors)
{
    std::vector<double> quotients;
    for (size_t i = 0; i < dividends.size(); ++i) {
        quotients.push_back(dividends[i] / divisors[i]);
    }
    return Middle(quotients, 0.5);
}

Entry Summary(Side& side, const Turns& turns)
{
    std::vector<double> walls = side.walls;
    return {side.name + turns.suffix, Percentile(side.samples, 0.5), Percentile(side.samples, 0.99),
        {{"cpu_us", side.cpu / static_cast<double>(side.samples.size())},
            {"calls_per_second", static_cast<double>(turns.calls * turns.threads) / Middle(walls, 0.5) * 1e6}}};
}

}  // namespace

double Percentile(std::vector<float>& samples, double share)
{
    return static_cast<double>(Middle(samples, share));
}

bool CallRepeatedly(const Side& side, size_t thread, size_t calls, std::vector<float>& samples)
{
    auto before = Clock::now();
    for (size_t i = 0; i < calls; ++i) {
        if (!side.call(thread)) {
            return false;
        }
        const auto after = Clock::now();
        samples.push_back(std::chrono::duration<float, std::micro>(after - before).count());
        before = after;
    }
    return true;
}

bool Compare(std::vector<Side> sides, const Turns& turns, Report& report)
{
    for (size_t round = 0; round <= turns.rounds; ++round) {
        for (Side& side : sides) {
            if (!TakeTurn(side, turns)) {
                return false;
            }
            if (round == 0) {
                side = Side{side.name, side.call, side.server, {}, {}, {}, 0};
            }
        }
    }
    const size_t first = report.size();
    for (Side& side : sides) {
        Entry entry = Summary(side, turns);
        if (report.size() > first) {
            const Side& base = sides.front();
            entry.values.emplace_back("p50_ratio", entry.p50 / report[first].p50);
            entry.values.emplace_back("round_ratio", MiddleQuotient(side.medians, base.medians));
            entry.values.emplace_back("throughput_ratio", MiddleQuotient(base.walls, side.walls));
        }
        report.push_back(std::move(entry));
    }
    return true;
}

}  // namespace VEXA::bench
