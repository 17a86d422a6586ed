// SPDX-License-Identifier: Apache-2.0
// One printf conversion with a privacy marker, taken apart: by the log while it prints, and by the check of its formats
// while compiling.
#pragma once

#include <algorithm>
#include <climits>
#include <string_view>
#include <utility>

namespace VEXA::log_format {

enum class Length { NONE, CHAR, SHORT, LONG, LONG_LONG, SIZE, MAX, PTRDIFF, LONG_DOUBLE };

struct Conversion {
    // A width or precision that stands in the arguments.
    static constexpr int kFromArgument = -2;
    static constexpr int kAbsent = -1;

    bool isPublic = false;
    bool isMarked = false;  // with either marker
    bool leftAligned = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zeroFilled = false;
    int width = kAbsent;
    int precision = kAbsent;
    Length length = Length::NONE;
    char letter = '\0';

    bool IsPlain() const
    {
        return !leftAligned && !plus && !space && !alternate && !zeroFilled && width == kAbsent && precision == kAbsent;
    }
};

// Takes `word` off the front of `text` if it stands there.
constexpr bool Take(const char*& text, std::string_view word)
{
    const char* at = text;
    for (const char wanted : word) {
        if (*at != wanted) {
            return false;
        }
        ++at;
    }
    text = at;
    return true;
}

inline constexpr std::pair<char, bool Conversion::*> kFlags[] = {{'-', &Conversion::leftAligned},
    {'+', &Conversion::plus}, {' ', &Conversion::space}, {'#', &Conversion::alternate}, {'0', &Conversion::zeroFilled}};

constexpr bool TakeFlag(const char*& text, Conversion& conversion)
{
    for (const auto& [letter, flag] : kFlags) {
        if (*text == letter) {
            conversion.*flag = true;
            ++text;
            return true;
        }
    }
    return false;
}

// A number that is too large for an int stays close below the largest one.
constexpr int ParseNumber(const char*& text)
{
    int number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        number = std::min(number, INT_MAX / 10 - 1) * 10 + (*text - '0');
    }
    return number;
}

constexpr void ParseWidth(const char*& text, Conversion& conversion)
{
    if (Take(text, "*")) {
        conversion.width = Conversion::kFromArgument;
    } else if (*text >= '1' && *text <= '9') {
        conversion.width = ParseNumber(text);
    }
    if (Take(text, ".")) {
        conversion.precision = Take(text, "*") ? Conversion::kFromArgument : ParseNumber(text);
    }
}

inline constexpr std::pair<std::string_view, Length> kLengths[] = {{"hh", Length::CHAR}, {"h", Length::SHORT},
    {"ll", Length::LONG_LONG}, {"l", Length::LONG}, {"z", Length::SIZE}, {"j", Length::MAX}, {"t", Length::PTRDIFF},
    {"L", Length::LONG_DOUBLE}};

constexpr Length ParseLength(const char*& text)
{
    for (const auto& [letters, length] : kLengths) {
        if (Take(text, letters)) {
            return length;
        }
    }
    return Length::NONE;
}

// True when the letter is known and may follow the length.
constexpr bool LetterFits(const Conversion& conversion)
{
    const auto isOneOf = [&](std::string_view letters) { return letters.find(conversion.letter) != letters.npos; };
    switch (conversion.length) {
        case Length::NONE:
            return isOneOf("sduxXiocpfFeEgGaA");
        case Length::LONG:
            return isOneOf("duxXiofFeEgGaA");
        case Length::LONG_DOUBLE:
            return isOneOf("fFeEgGaA");
        default:
            return isOneOf("duxXio");
    }
}

// Takes one conversion, whose percent sign has been read, off the front of `text`. Returns false when it is none that
// the log prints.
constexpr bool ParseConversion(const char*& text, Conversion& conversion)
{
    conversion.isPublic = Take(text, "{public}");
    conversion.isMarked = conversion.isPublic || Take(text, "{private}");
    while (TakeFlag(text, conversion)) {
    }
    ParseWidth(text, conversion);
    conversion.length = ParseLength(text);
    conversion.letter = *text;
    if (!LetterFits(conversion)) {
        return false;
    }
    ++text;
    return true;
}

}  // namespace VEXA::log_format
