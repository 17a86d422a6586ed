// SPDX-License-Identifier: Apache-2.0
#include "log_formatter.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "log_conversion.h"

namespace VEXA {
namespace {

using log_format::Conversion;
using log_format::Length;

constexpr std::string_view kPrivateText = "<private>";
constexpr int kNumberMax = static_cast<int>(kLogMessageBytes);

// The arguments that are left. A class, so that it can be handed on by reference, which va_list itself can't.
class Arguments {
public:
    explicit Arguments(va_list arguments) { va_copy(arguments_, arguments); }
    ~Arguments() { va_end(arguments_); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    template <typename T>
    T Next()
    {
        return va_arg(arguments_, T);
    }

    // An integer of the length's type; a narrow one was widened to int by the call.
    template <typename Wide>
    Wide NextInteger(Length length)
    {
        constexpr bool isSigned = std::is_signed_v<Wide>;
        switch (length) {
            case Length::CHAR:
                return static_cast<std::conditional_t<isSigned, signed char, unsigned char>>(Next<int>());
            case Length::SHORT:
                return static_cast<std::conditional_t<isSigned, short, unsigned short>>(Next<int>());
            case Length::LONG:
                return Next<std::conditional_t<isSigned, long, unsigned long>>();
            case Length::LONG_LONG:
                return Next<std::conditional_t<isSigned, long long, unsigned long long>>();
            case Length::SIZE:
                return Next<std::conditional_t<isSigned, ssize_t, size_t>>();
            case Length::PTRDIFF:
                return Next<std::conditional_t<isSigned, ptrdiff_t, std::make_unsigned_t<ptrdiff_t>>>();
            case Length::MAX:
                return Next<Wide>();
            default:
                return Next<std::conditional_t<isSigned, int, unsigned>>();
        }
    }

private:
    va_list arguments_;
};

// Puts the numbers that stand in the arguments into the conversion. A negative width aligns left, a negative precision
// is none. No number is larger than a message, where more would only be cut off again.
void FetchWidth(Arguments& arguments, Conversion& conversion)
{
    if (conversion.width == Conversion::kFromArgument) {
        const int width = std::max(arguments.Next<int>(), -kNumberMax);
        conversion.leftAligned |= width < 0;
        conversion.width = std::abs(width);
    }
    if (conversion.precision == Conversion::kFromArgument) {
        conversion.precision = std::max(arguments.Next<int>(), Conversion::kAbsent);
    }
    conversion.width = std::min(conversion.width, kNumberMax);
    conversion.precision = std::min(conversion.precision, kNumberMax);
}

// Prints one value with the C library, under the conversion's flags.
template <typename T>
void PrintValue(MessageBuffer& out, const Conversion& conversion, std::string_view length, T value)
{
    char format[16];
    char* end = format;
    *end++ = '%';
    for (const auto& [letter, flag] : log_format::kFlags) {
        if (conversion.*flag) {
            *end++ = letter;
        }
    }
    for (const char part : {'*', '.', '*'}) {
        *end++ = part;
    }
    end = std::copy(length.begin(), length.end(), end);
    *end++ = conversion.letter;
    *end = '\0';
    const int size =
        std::snprintf(out.End(), out.Room() + 1, format, std::max(conversion.width, 0), conversion.precision, value);
    out.Advance(static_cast<size_t>(std::max(size, 0)));
}

template <typename T>
void PrintInteger(MessageBuffer& out, const Conversion& conversion, T value)
{
    const bool decimal = conversion.letter == 'd' || conversion.letter == 'i' || conversion.letter == 'u';
    if (!decimal || !conversion.IsPlain()) {
        PrintValue(out, conversion, "j", value);
        return;
    }
    char digits[24];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    out.Append({digits, static_cast<size_t>(end - digits)});
}

void PrintText(MessageBuffer& out, const Conversion& conversion, std::string_view text)
{
    const size_t width = static_cast<size_t>(std::max(conversion.width, 0));
    const size_t filling = width > text.size() ? width - text.size() : 0;
    if (!conversion.leftAligned) {
        out.Append(filling, ' ');
    }
    out.Append(text);
    if (conversion.leftAligned) {
        out.Append(filling, ' ');
    }
}

// Looks at no more of the text than can be printed, and never behind its precision.
std::string_view BoundedText(const char* text, int precision)
{
    if (text == nullptr) {
        text = "(null)";
    }
    const size_t limit = precision >= 0 ? static_cast<size_t>(precision) : kLogMessageBytes + 1;
    return {text, strnlen(text, limit)};
}

template <typename T, typename Print>
void Show(MessageBuffer& out, bool shown, T value, Print print)
{
    if (shown) {
        print(value);
    } else {
        out.Append(kPrivateText);
    }
}

// Takes the conversion's arguments, all of them whether shown or not, and prints what may be seen.
void PrintArgument(MessageBuffer& out, Conversion conversion, Arguments& arguments, bool showPrivate)
{
    FetchWidth(arguments, conversion);
    const bool shown = conversion.isPublic || showPrivate;
    switch (conversion.letter) {
        case 'd':
        case 'i':
            Show(out, shown, arguments.NextInteger<intmax_t>(conversion.length),
                [&](intmax_t value) { PrintInteger(out, conversion, value); });
            return;
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            Show(out, shown, arguments.NextInteger<uintmax_t>(conversion.length),
                [&](uintmax_t value) { PrintInteger(out, conversion, value); });
            return;
        case 'c':
            Show(out, shown, static_cast<char>(arguments.Next<int>()), [&](char value) {
                PrintText(out, conversion, {&value, 1});
            });
            return;
        case 's':
            Show(out, shown, arguments.Next<const char*>(),
                [&](const char* text) { PrintText(out, conversion, BoundedText(text, conversion.precision)); });
            return;
        case 'p':
            Show(out, shown, arguments.Next<const void*>(),
                [&](const void* value) { PrintValue(out, conversion, "", value); });
            return;
        default:
            if (conversion.length == Length::LONG_DOUBLE) {
                Show(out, shown, arguments.Next<long double>(),
                    [&](long double value) { PrintValue(out, conversion, "L", value); });
            } else {
                Show(out, shown, arguments.Next<double>(),
                    [&](double value) { PrintValue(out, conversion, "", value); });
            }
            return;
    }
}

}  // namespace

bool FormatMessage(MessageBuffer& out, const char* format, va_list given, bool showPrivate)
{
    Arguments arguments(given);
    while (!out.IsTruncated()) {
        const char* percent = strchrnul(format, '%');
        out.Append({format, static_cast<size_t>(percent - format)});
        if (*percent == '\0') {
            return true;
        }
        format = percent + 1;
        if (*format == '%') {
            out.Append("%");
            ++format;
            continue;
        }
        Conversion conversion;
        if (!ParseConversion(format, conversion)) {
            out.Append("<bad format>");
            return false;
        }
        PrintArgument(out, conversion, arguments, showPrivate);
    }
    return true;
}

}  // namespace VEXA
