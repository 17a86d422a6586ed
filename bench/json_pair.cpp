// SPDX-License-Identifier: Apache-2.0
#include "json_pair.h"

#include <benchmark/benchmark.h>

namespace VEXA::bench {
namespace {

// The console's report, kept as well.
class KeepingReporter : public benchmark::ConsoleReporter {
public:
    explicit KeepingReporter(Report& report) : report_(report) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (!run.error_occurred && run.run_type == Run::RT_Iteration) {
                Keep(run);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

private:
    void Keep(const Run& run)
    {
        const auto value = [&run](const char* name) { return run.counters.at(name).value; };
        const std::string& text = run.run_name.function_name;
        report_.push_back({"json.parse_" + text, value("parse_p50_us"), value("parse_p99_us"), {}});
        report_.push_back({"json.bind_" + text, value("bind_p50_us"), value("bind_p99_us"),
            {{"bytes", value("bytes")}, {"ratio", value("ratio")}}});
    }

    Report& report_;
};

}  // namespace

void MeasureJson(Report& report)
{
    KeepingReporter reporter(report);
    benchmark::RunSpecifiedBenchmarks(&reporter);
}

}  // namespace VEXA::bench
