// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace VEXA::bench {

void PrintTable(const Report& report)
{
    std::printf("\n%-32s %10s %10s  %s\n", "name", "p50 us", "p99 us", "");
    for (const Entry& entry : report) {
        std::printf("%-32s %10.2f %10.2f ", entry.name.c_str(), entry.p50, entry.p99);
        for (const auto& [key, value] : entry.values) {
            std::printf(" %s=%.6g", key.c_str(), value);
        }
        std::printf("\n");
    }
}

bool WriteJson(const Report& report, const std::string& path)
{
    const auto folder = std::filesystem::path(path).parent_path();
    std::error_code error;
    if (!folder.empty()) {
        std::filesystem::create_directories(folder, error);
    }
    std::ofstream file(path);
    file.precision(10);
    const char* separator = "[";
    for (const Entry& entry : report) {
        // Names are ours and need no escapes.
        file << separator << "\n  {\"name\": \"" << entry.name << "\", \"p50_us\": " << entry.p50
             << ", \"p99_us\": " << entry.p99;
        for (const auto& [key, value] : entry.values) {
            file << ", \"" << key << "\": " << value;
        }
        file << '}';
        separator = ",";
    }
    file << (report.empty() ? "[" : "") << "\n]\n";
    return file.flush().good();
}

}  // namespace VEXA::bench
