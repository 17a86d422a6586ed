// SPDX-License-Identifier: Apache-2.0
#include "json_text.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace VEXA {
namespace {

bool IsHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The four characters behind "\u" stand for a character other than NUL.
bool IsWholeCharacter(std::string_view digits)
{
    return digits.size() == 4 && std::all_of(digits.begin(), digits.end(), IsHexDigit) && digits != "0000";
}

}  // namespace

bool HoldsNul(const std::string& text)
{
    const std::string_view whole(text);
    // Stops at a NUL as well: one pass for both.
    const auto next = [&text](size_t from) { return from + std::strcspn(text.c_str() + from, "\\"); };
    size_t at = next(0);
    while (at < text.size()) {
        if (text[at] == '\0' || (text[at + 1] == 'u' && !IsWholeCharacter(whole.substr(at + 2, 4)))) {
            return true;
        }
        at = at + 2 > text.size() ? text.size() : next(at + 2);
    }
    return false;
}

}  // namespace VEXA
