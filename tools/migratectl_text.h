// SPDX-License-Identifier: Apache-2.0
// Texts that came from elsewhere, made fit for a terminal or for JSON; and numbers as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace migratectl {

// The text without anything that could steer a terminal: each control character, the C1 ones included, each mark that
// turns the direction of writing, and each byte that is no UTF-8 becomes a question mark. Widths of characters are
// those of the locale's LC_CTYPE; in one without UTF-8 every character that is not ASCII becomes a question mark.
std::string Clean(std::string_view text);

// The columns that a clean text takes on a terminal.
size_t Columns(std::string_view text);
// The text with spaces behind it, or cut to end in an ellipsis, so that it takes `columns`.
std::string Fit(std::string_view text, size_t columns);

// A JSON text as valid UTF-8 that is harmless on a terminal, with the same meaning: DEL and C1 characters become
// escapes, and a byte 0xXX that is no UTF-8 the escape \udcXX, which stands for no character.
std::string EscapeOdd(std::string_view json);

const char* StatusName(int64_t status);
std::string ShowBytes(int64_t bytes);
// A number of a record, by its key: sizes with units, times as dates and durations, statuses in words.
std::string ShowNumber(std::string_view key, int64_t value);

}  // namespace migratectl
