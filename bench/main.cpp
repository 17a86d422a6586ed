// SPDX-License-Identifier: Apache-2.0
// Runs all benchmarks and reports. The same program, started with options that people do not need, is also the other
// side of the requests.
#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_service.h"
#include "copying.h"
#include "idle_clients.h"
#include "json_pair.h"
#include "raw_stream.h"
#include "report.h"
#include "request_pair.h"

int main(int argc, char** argv)
{
    using namespace VEXA::bench;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments == std::vector<std::string>{"--nothing"}) {
        return 0;
    }
    // Before the first line is logged here, and inherited by the other processes.
    setenv("KOLOG_LEVEL", "error", 1);
    if (arguments.size() == 1 && arguments[0] == "--service") {
        return ServeRequests();
    }
    if (arguments.size() == 2 && arguments[0] == "--raw-server") {
        return ServeRawStream(arguments[1]);
    }
    if (arguments.size() == 2 && arguments[0] == "--idle-clients") {
        return RunIdleClients(std::stoul(arguments[1]));
    }

    benchmark::Initialize(&argc, argv);
    CLI::App app("Measures requests and JSON binding. Google Benchmark's options apply to the JSON part.");
    std::string file = "build/bench/report.json";
    RequestCalls calls;
    app.add_option("--report", file, "Where the report goes")->capture_default_str();
    app.add_option("--pinned-calls", calls.pinned, "Calls with all processes on one processor")->capture_default_str();
    app.add_option("--free-calls", calls.free, "Calls with the processes left free")->capture_default_str();
    app.add_option("--thread-calls", calls.threads, "Calls of four threads together")->capture_default_str();
    app.add_option("--64k-calls", calls.texts64k, "Calls for texts of 64 KiB")->capture_default_str();
    app.add_option("--1m-calls", calls.texts1m, "Calls for texts of 1 MiB")->capture_default_str();
    app.add_option("--heap-calls", calls.heap, "Calls over which memory is watched")->capture_default_str();
    app.add_option("--idle", calls.idleClients, "Idle clients beside the measured one")->capture_default_str();
    app.add_option("--kills", calls.kills, "Kills of the service")->capture_default_str();
    size_t copies = 3;
    app.add_option("--copies", copies, "Copies of everything, beside cp -a")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    Report report;
    if (!MeasureRequests(calls, report)) {
        std::fprintf(stderr, "migrate_bench: the requests failed\n");
        return 1;
    }
    if (!MeasureCopies(copies, report)) {
        std::fprintf(stderr, "migrate_bench: the copies failed\n");
        return 1;
    }
    MeasureJson(report);
    PrintTable(report);
    if (!WriteJson(report, file)) {
        std::fprintf(stderr, "migrate_bench: %s can't be written\n", file.c_str());
        return 1;
    }
    return 0;
}
