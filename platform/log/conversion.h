// SPDX-License-Identifier: Apache-2.0
// One printf conversion, taken apart.
#pragma once

namespace VEXA {

enum class Length { NONE, CHAR, SHORT, LONG, LONG_LONG, SIZE, MAX, PTRDIFF, LONG_DOUBLE };

struct Conversion {
    // A width or precision that stands in the arguments.
    static constexpr int FROM_ARGUMENT = -2;
    static constexpr int ABSENT = -1;

    bool isPublic = false;
    bool leftAligned = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zeroFilled = false;
    int width = ABSENT;
    int precision = ABSENT;
    Length length = Length::NONE;
    char letter = '\0';

    bool IsPlain() const
    {
        return !leftAligned && !plus && !space && !alternate && !zeroFilled && width == ABSENT && precision == ABSENT;
    }
};

// Takes one conversion, whose percent sign is behind us, off the front of `text`. Returns false when it is none that
// we print.
bool ParseConversion(const char*& text, Conversion& conversion);

}  // namespace VEXA
