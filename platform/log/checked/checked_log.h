// SPDX-License-Identifier: Apache-2.0
// Log lines whose format is checked against its arguments while compiling. The compiler's own check of printf formats
// does not know the privacy markers, so this one stands in for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "log_conversion.h"
#include "vexa/log/kolog.h"

namespace VEXA {
namespace log_format {

// The markers that the conversions of a format need.
enum class Marker { OPTIONAL, REQUIRED, PUBLIC };

// The type of an argument after the promotions of a variadic call. The letter is one of "dufsp", or none of them for a
// type that can't be printed; the length is NONE, LONG, LONG_LONG or LONG_DOUBLE.
struct Kind {
    char letter;
    Length length = Length::NONE;
    bool operator==(const Kind&) const = default;
};

template <typename T>
constexpr Kind KindOf()
{
    using Plain = std::decay_t<T>;
    if constexpr (std::is_pointer_v<Plain>) {
        return {std::is_same_v<std::remove_cv_t<std::remove_pointer_t<Plain>>, char> ? 's' : 'p'};
    } else if constexpr (std::is_floating_point_v<Plain>) {
        return {'f', std::is_same_v<Plain, long double> ? Length::LONG_DOUBLE : Length::NONE};
    } else if constexpr (std::is_scalar_v<Plain> && std::is_convertible_v<Plain, long long>) {
        using Int = decltype(+Plain{});
        return {std::is_signed_v<Int> ? 'd' : 'u', std::is_same_v<std::make_signed_t<Int>, long> ? Length::LONG
                                                   : sizeof(Int) > sizeof(int)                   ? Length::LONG_LONG
                                                                                                 : Length::NONE};
    }
    return {'\0'};
}

// The type of argument that a conversion takes, if a checked line may have it: a width in the arguments is not known
// here, nor the lengths hh and h, as a narrow argument is printed as the int that it arrives as.
constexpr Kind KindOf(const Conversion& conversion)
{
    const bool isSigned = conversion.letter == 'd' || conversion.letter == 'i';
    const bool isReal = std::string_view("fFeEgGaA").find(conversion.letter) != std::string_view::npos;
    const char letter = isSigned ? 'd' : isReal ? 'f' : 'u';
    if (conversion.width == Conversion::kFromArgument || conversion.precision == Conversion::kFromArgument) {
        return {'*'};
    }
    if (conversion.letter == 's' || conversion.letter == 'p' || conversion.letter == 'c') {
        return {conversion.letter == 'c' ? 'd' : conversion.letter};
    }
    switch (conversion.length) {
        case Length::SIZE:
            return {letter, KindOf<size_t>().length};
        case Length::MAX:
            return {letter, KindOf<intmax_t>().length};
        case Length::PTRDIFF:
            return {letter, KindOf<ptrdiff_t>().length};
        default:
            return {letter, isReal && conversion.length == Length::LONG ? Length::NONE : conversion.length};
    }
}

// Never defined: a call to it inside a format's check is the compile error.
void WrongLogFormat();

// Returns what is wrong, or else fails to compile: the compiler then shows the arguments of this call.
constexpr const char* Fault(const char* what, bool isFatal)
{
    if (isFatal) {
        WrongLogFormat();
    }
    return what;
}

// Returns what is wrong with a format for arguments of the types Args; null when nothing is.
template <typename... Args>
constexpr const char* FaultOf(const char* text, Marker rule, bool isFatal = false)
{
    constexpr Kind kinds[] = {KindOf<Args>()..., Kind{'\0'}};
    size_t used = 0;
    while (*text != '\0') {
        if (*text++ != '%' || Take(text, "%")) {
            continue;
        }
        Conversion conversion;
        if (!ParseConversion(text, conversion)) {
            return Fault("the log does not know this conversion", isFatal);
        }
        if ((rule == Marker::REQUIRED && !conversion.isMarked) || (rule == Marker::PUBLIC && !conversion.isPublic)) {
            return Fault("a conversion lacks its privacy marker", isFatal);
        }
        if (kinds[used] != KindOf(conversion)) {
            return Fault("a conversion does not fit its argument", isFatal);
        }
        ++used;
    }
    return used == sizeof...(Args) ? nullptr : Fault("there are more arguments than conversions", isFatal);
}

}  // namespace log_format

// A format that fits arguments of the types Args. Each of its conversions carries a marker, unless `rule` says
// otherwise.
template <typename... Args>
class CheckedFormat {
public:
    consteval CheckedFormat(const char* text, log_format::Marker rule = log_format::Marker::REQUIRED) : text_(text)
    {
        log_format::FaultOf<Args...>(text, rule, true);
    }
    constexpr const char* Text() const { return text_; }

private:
    const char* text_;
};

// KoLogPrint for a format that is checked. The format is a string literal or a constant.
template <typename... Args>
[[gnu::always_inline]] inline void KoLogLine(
    const KoLogLabel& label, uint32_t level, CheckedFormat<std::type_identity_t<Args>...> format, Args... args)
{
    KoLogPrint(label.type, level, label.domain, label.tag, format.Text(), args...);
}

}  // namespace VEXA
