// SPDX-License-Identifier: Apache-2.0
// Compares binding a text with cJSON's parse and delete of it. The two take turns, so that both see the same machine.
// "bind" and "ratio" run from the text to the record. "ratio_released" includes the record's release, which in the C
// library also pays for tidying up behind cJSON's many small blocks. Ratios are medians of the rounds' ratios.
#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "json_parse.h"
#include "measure.h"
#include "native_migrate/migrate_records.h"

namespace VEXA::UpdateEngine {
namespace {

TaskInfo Task(uint32_t id)
{
    TaskInfo task;
    task.id = id;
    task.status = TaskStatus::RUNNING;
    task.subStatus = id % 7;
    task.type = TaskType::APP;
    task.source = "com.example.old." + std::to_string(id);
    task.target = "com.example.new." + std::to_string(id);
    task.displayPolicy = {"true", "Application " + std::to_string(id),
        {"entry", "home", "player", "shop", "wallet", "widget", "service"}};
    task.requiredTraffic = 1'000'000 + id;
    task.progress = static_cast<int32_t>(id % 100);
    task.index = id;
    task.userId = 100;
    return task;
}

std::string InfoText(uint32_t tasks)
{
    MigrateInfo info;
    info.migrateProgress = {2, 40, 3600, 0, 123456789, 987654321, 10, 20};
    for (uint32_t id = 0; id < tasks; ++id) {
        info.taskInfos.push_back(Task(id));
    }
    std::string text;
    JsonFromStruct().TraverseData(text, info);
    return text;
}

void ParseOnly(const std::string& text)
{
    cJSON_Delete(cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, nullptr, 1));
}

// Seconds of this thread's processor time that one call takes, over `calls` of them: other programs on the machine
// stretch wall time by whole slices.
template <typename Call>
double Seconds(int calls, const Call& call)
{
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double start = now();
    for (int i = 0; i < calls; ++i) {
        call(static_cast<size_t>(i));
    }
    return (now() - start) / calls;
}

template <typename T>
void CompareToParse(benchmark::State& state, const std::string& text)
{
    const int calls = static_cast<int>(std::max<size_t>(1, 20'000 / text.size()));
    std::vector<float> parses;
    std::vector<float> binds;
    std::vector<float> ratios;
    std::vector<float> releasedRatios;
    for ([[maybe_unused]] auto _ : state) {
        const double parse = Seconds(calls, [&](size_t /*i*/) { ParseOnly(text); });
        std::vector<T> records(static_cast<size_t>(calls));
        const double bind = Seconds(calls, [&](size_t i) { JsonParse::JsonStrToStruct(text, records[i]); });
        const double release = Seconds(calls, [&](size_t i) { records[i] = T(); });
        benchmark::DoNotOptimize(records);
        parses.push_back(static_cast<float>(parse * 1e6));
        binds.push_back(static_cast<float>(bind * 1e6));
        ratios.push_back(static_cast<float>(bind / parse));
        releasedRatios.push_back(static_cast<float>((bind + release) / parse));
        state.SetIterationTime(bind);
    }
    state.counters["parse_p50_us"] = bench::Percentile(parses, 0.5);
    state.counters["parse_p99_us"] = bench::Percentile(parses, 0.99);
    state.counters["bind_p50_us"] = bench::Percentile(binds, 0.5);
    state.counters["bind_p99_us"] = bench::Percentile(binds, 0.99);
    state.counters["ratio"] = bench::Percentile(ratios, 0.5);
    state.counters["ratio_released"] = bench::Percentile(releasedRatios, 0.5);
    state.counters["bytes"] = static_cast<double>(text.size());
}

void BindMigrateInfo(benchmark::State& state)
{
    CompareToParse<MigrateInfo>(state, InfoText(1000));
}
BENCHMARK(BindMigrateInfo)->Name("migrate_info")->UseManualTime()->Iterations(200);

void BindShortMigrateInfo(benchmark::State& state)
{
    CompareToParse<MigrateInfo>(state, InfoText(10));
}
BENCHMARK(BindShortMigrateInfo)->Name("short_migrate_info")->UseManualTime()->Iterations(2000);

void BindBusinessError(benchmark::State& state)
{
    CompareToParse<BusinessError>(state, R"({"message":"","errorNum":0,"data":[]})");
}
BENCHMARK(BindBusinessError)->Name("business_error")->UseManualTime()->Iterations(2000);

}  // namespace
}  // namespace VEXA::UpdateEngine
