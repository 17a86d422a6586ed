// SPDX-License-Identifier: Apache-2.0
// The results of the benchmarks, as a table for people and as a JSON list for programs.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace VEXA::bench {

// One measurement. Times are in microseconds; what else there is to say stands in `values`, in order.
struct Entry {
    std::string name;
    double p50 = 0;
    double p99 = 0;
    std::vector<std::pair<std::string, double>> values;
};

using Report = std::vector<Entry>;

void PrintTable(const Report& report);

// Writes a list of objects with `name`, `p50_us`, `p99_us` and each entry's values, and makes the folders on the way.
// False when the file can't be written.
bool WriteJson(const Report& report, const std::string& path);

}  // namespace VEXA::bench
