// SPDX-License-Identifier: Apache-2.0
#include "conversion.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "vexa/log/log_sink.h"

namespace VEXA {
namespace {

bool Take(const char*& text, std::string_view word)
{
    if (std::strncmp(text, word.data(), word.size()) != 0) {
        return false;
    }
    text += word.size();
    return true;
}

bool ParseMarker(const char*& text, Conversion& conversion)
{
    conversion.isPublic = Take(text, "{public}");
    return conversion.isPublic || Take(text, "{private}") || *text != '{';
}

void ParseFlags(const char*& text, Conversion& conversion)
{
    for (;; ++text) {
        switch (*text) {
            case '-':
                conversion.leftAligned = true;
                break;
            case '+':
                conversion.plus = true;
                break;
            case ' ':
                conversion.space = true;
                break;
            case '#':
                conversion.alternate = true;
                break;
            case '0':
                conversion.zeroFilled = true;
                break;
            default:
                return;
        }
    }
}

// A number no longer than a message: more would only be cut off again.
int ParseNumber(const char*& text)
{
    int number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        number = std::min(number * 10 + (*text - '0'), static_cast<int>(LOG_MESSAGE_MAX));
    }
    return number;
}

void ParseWidth(const char*& text, Conversion& conversion)
{
    if (Take(text, "*")) {
        conversion.width = Conversion::FROM_ARGUMENT;
    } else if (*text >= '1' && *text <= '9') {
        conversion.width = ParseNumber(text);
    }
    if (Take(text, ".")) {
        conversion.precision = Take(text, "*") ? Conversion::FROM_ARGUMENT : ParseNumber(text);
    }
}

Length ParseLength(const char*& text)
{
    static constexpr struct {
        std::string_view text;
        Length length;
    } lengths[] = {
        {"hh", Length::CHAR},
        {"h", Length::SHORT},
        {"ll", Length::LONG_LONG},
        {"l", Length::LONG},
        {"z", Length::SIZE},
        {"j", Length::MAX},
        {"t", Length::PTRDIFF},
        {"L", Length::LONG_DOUBLE},
    };
    for (const auto& known : lengths) {
        if (Take(text, known.text)) {
            return known.length;
        }
    }
    return Length::NONE;
}

bool LengthFits(const Conversion& conversion)
{
    switch (conversion.letter) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            return conversion.length != Length::LONG_DOUBLE;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return conversion.length == Length::NONE || conversion.length == Length::LONG ||
                   conversion.length == Length::LONG_DOUBLE;
        case 'c':
        case 's':
        case 'p':
            return conversion.length == Length::NONE;
        default:
            return false;
    }
}

}  // namespace

bool ParseConversion(const char*& text, Conversion& conversion)
{
    if (!ParseMarker(text, conversion)) {
        return false;
    }
    ParseFlags(text, conversion);
    ParseWidth(text, conversion);
    conversion.length = ParseLength(text);
    conversion.letter = *text;
    if (!LengthFits(conversion)) {
        return false;
    }
    ++text;
    return true;
}

}  // namespace VEXA
