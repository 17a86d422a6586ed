// SPDX-License-Identifier: Apache-2.0
// Log formats that are checked against their arguments while compiling. The compiler's own check does not know the
// privacy markers, so this one stands in for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace VEXA::UpdateEngine {

// The start of every line's format; its two arguments are the file's base name and the line.
inline constexpr std::string_view LOG_PREFIX = "[%{public}s(%{public}d)]";

namespace log_format {

enum class Kind { TEXT, INT, LONG, REAL, POINTER, OTHER };

template <typename T>
constexpr Kind KindOf()
{
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, const char*> || std::is_same_v<Plain, char*>) {
        return Kind::TEXT;
    } else if constexpr (std::is_integral_v<Plain> ||
                         (std::is_enum_v<Plain> && std::is_convertible_v<Plain, long long>)) {
        return sizeof(Plain) <= sizeof(int) ? Kind::INT : Kind::LONG;
    } else if constexpr (std::is_same_v<Plain, double> || std::is_same_v<Plain, float>) {
        return Kind::REAL;
    } else if constexpr (std::is_pointer_v<Plain>) {
        return Kind::POINTER;
    } else {
        return Kind::OTHER;
    }
}

// Never defined: a call to it inside a format's check is the compile error, and its argument says what is wrong.
void WrongLogFormat(const char* reason);

// Takes the characters of `set` off the front.
constexpr void Skip(std::string_view& rest, std::string_view set)
{
    while (!rest.empty() && set.find(rest.front()) != set.npos) {
        rest.remove_prefix(1);
    }
}

// Takes one conversion, behind its percent sign, off the front and tells what it prints.
constexpr Kind TakeConversion(std::string_view& rest)
{
    constexpr std::string_view marker = "{public}";
    if (rest.substr(0, marker.size()) != marker) {
        WrongLogFormat("every argument of a log line carries the public marker");
    }
    rest.remove_prefix(marker.size());
    Skip(rest, "-+ #0123456789.");
    const bool isLong = !rest.empty() && std::string_view("lzjt").find(rest.front()) != rest.npos;
    Skip(rest, "hlzjt");
    const char conversion = rest.empty() ? '\0' : rest.front();
    rest.remove_prefix(rest.empty() ? 0 : 1);
    switch (conversion) {
        case 's':
            return Kind::TEXT;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
            return isLong ? Kind::LONG : Kind::INT;
        case 'f':
        case 'g':
            return Kind::REAL;
        case 'p':
            return Kind::POINTER;
        default:
            return Kind::OTHER;
    }
}

constexpr void Check(std::string_view rest, const Kind* kinds, size_t count)
{
    size_t used = 0;
    for (size_t at = rest.find('%'); at != rest.npos; at = rest.find('%')) {
        rest.remove_prefix(at + 1);
        if (!rest.empty() && rest.front() == '%') {
            rest.remove_prefix(1);
            continue;
        }
        const Kind kind = TakeConversion(rest);
        if (kind == Kind::OTHER || used == count || kinds[used] != kind) {
            WrongLogFormat("a conversion does not fit its argument");
        }
        ++used;
    }
    if (used != count) {
        WrongLogFormat("more arguments than conversions");
    }
}

}  // namespace log_format

// A whole format, prefix included, for a message with arguments of the types Args.
template <typename... Args>
class LogFormat {
public:
    consteval LogFormat(const char* text) : text_(text)
    {
        constexpr log_format::Kind kinds[] = {
            log_format::Kind::TEXT, log_format::Kind::INT, log_format::KindOf<Args>()...};
        const std::string_view view(text);
        if (view.substr(0, LOG_PREFIX.size()) != LOG_PREFIX) {
            log_format::WrongLogFormat("a log line begins with the file and line prefix");
        }
        log_format::Check(view, kinds, sizeof...(Args) + 2);
    }
    constexpr const char* Text() const { return text_; }

private:
    const char* text_;
};

}  // namespace VEXA::UpdateEngine
