// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

#include "log_formatter.h"

namespace VEXA {
namespace {

struct Formatted {
    bool usable;
    std::string text;
};

Formatted Format(bool showPrivate, const char* format, ...)
{
    MessageBuffer out;
    va_list arguments;
    va_start(arguments, format);
    const bool usable = FormatMessage(out, format, arguments, showPrivate);
    va_end(arguments);
    return {usable, std::string(out.View())};
}

// What the C library makes of the same format without its markers.
std::string Reference(const char* given, ...)
{
    std::string format(given);
    for (size_t at = format.find("{public}"); at != format.npos; at = format.find("{public}")) {
        format.erase(at, 8);
    }
    char text[1024];
    va_list arguments;
    va_start(arguments, given);
    const int size = std::vsnprintf(text, sizeof text, format.c_str(), arguments);
    va_end(arguments);
    return std::string(text, static_cast<size_t>(size));
}

template <typename... Args>
void ExpectLikePrintf(const char* format, Args... args)
{
    const Formatted formatted = Format(false, format, args...);
    EXPECT_TRUE(formatted.usable) << format;
    EXPECT_EQ(formatted.text, Reference(format, args...)) << format;
}

TEST(LogFormatTest, PublicArgumentsPrintLikePrintf)
{
    for (const int value : {0, 1, -1, 42, INT_MAX, INT_MIN}) {
        for (const char* format :
            {"%{public}d", "%{public}i|", "%{public}u", "%{public}x", "%{public}#X", "%{public}#o", "%{public}08d",
                "%{public}-8d|", "%{public}+d", "%{public} d", "%{public}.5d", "%{public}10.3x", "%{public}hhd",
                "%{public}hhu", "%{public}hd", "%{public}hu", "%{public}hhx", "100%% %{public}d"}) {
            ExpectLikePrintf(format, value);
        }
    }
    ExpectLikePrintf("%{public}ld %{public}lld %{public}jd %{public}zd %{public}td", LONG_MIN, LLONG_MAX, INTMAX_MIN,
        ssize_t{-7}, ptrdiff_t{-9});
    ExpectLikePrintf("%{public}lu %{public}llx %{public}ju %{public}zu %{public}tu", ULONG_MAX, ULLONG_MAX, UINTMAX_MAX,
        SIZE_MAX, ptrdiff_t{9});
    for (const double value : {0.0, -0.5, 3.14159, 1e300, DBL_MIN, 1.0 / 0.0}) {
        for (const char* format : {"%{public}f", "%{public}.2f", "%{public}12.3e|", "%{public}g", "%{public}#G",
                 "%{public}a", "%{public}lf", "%{public}-20.1A|", "%{public}+E", "%{public}010F"}) {
            ExpectLikePrintf(format, value);
        }
    }
    ExpectLikePrintf("%{public}Lf %{public}.3Lg %{public}d", 2.5L, LDBL_MAX, 7);
    ExpectLikePrintf("%{public}s|%{public}10s|%{public}-10s|%{public}.2s|%{public}s", "abc", "abc", "abc", "abc", "");
    ExpectLikePrintf("%{public}c%{public}3c%{public}-3c|", 'a', 'b', 'c');
    ExpectLikePrintf("%{public}p %{public}20p", static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234));
    ExpectLikePrintf("%{public}*d|%{public}*d|%{public}-*s|", 6, 42, -6, 42, 5, "x");
    ExpectLikePrintf("%{public}.*s|%{public}.*s|%{public}*.*f|", 2, "abc", -1, "abc", 8, 2, 1.239);
}

TEST(LogFormatTest, HidesWhatIsNotPublicAndStaysInStep)
{
    const struct {
        bool showPrivate;
        const char* format;
        const char* expected;
    } cases[] = {
        {false, "%s|%{public}s|%{private}s|%{public}d", "<private>|b|<private>|4"},
        {true, "%s|%{public}s|%{private}s|%{public}d", "a|b|c|4"},
        {false, "%10s|%{public}s|%-3.1s|%{public}d", "<private>|b|<private>|4"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(Format(one.showPrivate, one.format, "a", "b", "c", 4).text, one.expected) << one.format;
    }
    // Hidden arguments of every kind are passed over whole, their widths included.
    EXPECT_EQ(Format(false, "%Lf%f%lld%hhd%c%p%*.*d%{public}s", 1.0L, 2.0, 3LL, 4, '5', nullptr, 6, 7, 8, "end").text,
        "<private><private><private><private><private><private><private>end");
    EXPECT_EQ(Format(false, "%{public}s", static_cast<const char*>(nullptr)).text, "(null)");
    // A text with a precision need not be terminated.
    const char open[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Format(false, "%{public}.3s", open).text, "abc");
}

TEST(LogFormatTest, EndsAtAConversionItDoesNotKnow)
{
    for (const char* bad : {"%", "%{", "%{public", "%{public}", "%{secret}s", "%n", "%{public}n", "%{public}hhn", "%y",
             "%1$d", "%{public}ls", "%lc", "%hs", "%Ld", "%hf", "%zf", "%lp", "%{public}5", "%-", "%.", "%ll", "%'d",
             "%{public}%d", "% "}) {
        const Formatted formatted = Format(true, (std::string("%{public}d ") + bad).c_str(), 1, "x", "y", "z");
        EXPECT_FALSE(formatted.usable) << bad;
        EXPECT_EQ(formatted.text, "1 <bad format>") << bad;
    }
}

TEST(LogFormatTest, CutsLongMessagesAndMarksThem)
{
    const std::string exact(LOG_MESSAGE_MAX, 'x');
    EXPECT_EQ(Format(false, "%{public}s", exact.c_str()).text, exact);
    const std::string cut = exact.substr(0, LOG_MESSAGE_MAX - 11) + "<truncated>";
    EXPECT_EQ(Format(false, "%{public}s", (exact + "x").c_str()).text, cut);
    EXPECT_EQ(Format(false, (exact + "%{public}d").c_str(), 1).text, cut);
    EXPECT_EQ(Format(false, "%{public}s%{public}s", exact.c_str(), "").text, exact);
    // Widths that no line can hold are cut like the text, whatever their size.
    EXPECT_EQ(Format(false, "%{public}99999999999d%{public}d", 1, 2).text.size(), LOG_MESSAGE_MAX);
    EXPECT_EQ(Format(false, "%{public}.99999f", 1e300).text.size(), LOG_MESSAGE_MAX);
    for (const int width : {INT_MAX, INT_MIN, INT_MIN + 1}) {
        EXPECT_EQ(Format(false, "%{public}*d%{public}*s", width, 1, width, "x").text.size(), LOG_MESSAGE_MAX) << width;
        EXPECT_EQ(Format(false, "%{public}.*s", width, "abc").text, "abc") << width;
    }
}

}  // namespace
}  // namespace VEXA
