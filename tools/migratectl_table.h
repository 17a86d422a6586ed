// SPDX-License-Identifier: Apache-2.0
// Names and values as text.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace migratectl {

using Fields = std::vector<std::pair<std::string, std::string>>;

// A row's names are the header. Columns are as wide as their longest value; with a width, the widest ones are cut until
// each line fits it. An empty table has no header. Values are cleaned.
std::string FormatTable(const std::vector<Fields>& rows, size_t width);
// One line a field.
std::string FormatFields(const Fields& fields);

}  // namespace migratectl
