// SPDX-License-Identifier: Apache-2.0
#include "migratectl_table.h"

#include <algorithm>
#include <numeric>

#include "migratectl_text.h"

namespace migratectl {

namespace {

using Lines = std::vector<std::vector<std::string>>;

constexpr size_t kGap = 2;

std::vector<size_t> Widths(const Lines& lines, size_t most)
{
    std::vector<size_t> widths(lines.front().size());
    for (const auto& line : lines) {
        for (size_t i = 0; i < widths.size(); i++) {
            widths[i] = std::max(widths[i], Columns(line[i]));
        }
    }
    const size_t gaps = kGap * (widths.size() - 1);
    const auto widest = [&widths] { return std::max_element(widths.begin(), widths.end()); };
    while (most > 0 && std::accumulate(widths.begin(), widths.end(), gaps) > most && *widest() > 1) {
        --*widest();
    }
    return widths;
}

std::string Format(const Lines& lines, size_t width)
{
    const auto widths = lines.empty() ? std::vector<size_t>() : Widths(lines, width);
    std::string text;
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); i++) {
            text += Fit(line[i], widths[i]) + std::string(kGap, ' ');
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    return text;
}

}  // namespace

std::string FormatTable(const std::vector<Fields>& rows, size_t width)
{
    Lines lines(rows.empty() ? 0 : 1);
    for (const Fields& row : rows) {
        std::vector<std::string> line;
        for (const auto& [name, value] : row) {
            if (lines.size() == 1) {
                lines[0].push_back(Clean(name));
            }
            line.push_back(Clean(value));
        }
        line.resize(lines[0].size());
        lines.push_back(line);
    }
    return Format(lines, width);
}

std::string FormatFields(const Fields& fields)
{
    Lines lines;
    for (const auto& [name, value] : fields) {
        lines.push_back({Clean(name), Clean(value)});
    }
    return Format(lines, 0);
}

}  // namespace migratectl
