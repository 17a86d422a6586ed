// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>

#include "checked_log.h"
#include "log_formatter.h"

namespace VEXA {
namespace {

std::string Format(bool showPrivate, const char* format, ...)
{
    MessageBuffer out;
    va_list arguments;
    va_start(arguments, format);
    FormatMessage(out, format, arguments, showPrivate);
    va_end(arguments);
    return std::string(out.View());
}

// `format` without markers must print as the C library prints it when all its arguments are public.
template <typename... Args>
void ExpectLikePrintf(const char* format, Args... args)
{
    char expected[1024];
    std::snprintf(expected, sizeof expected, format, args...);
    std::string marked;
    for (const char* next = format; *next != '\0'; ++next) {
        marked += *next == '%' ? "%{public}" : std::string(1, *next);
    }
    EXPECT_EQ(Format(false, marked.c_str(), args...), expected) << format;
}

TEST(LogFormatTest, PublicArgumentsPrintLikePrintf)
{
    for (const int value : {0, 1, -1, 42, INT_MAX, INT_MIN}) {
        for (const char* format : {"%d", "%i|", "%u", "%x", "%#X", "%#o", "%08d", "%-8d|", "%+d", "% d", "%.5d",
                 "%10.3x", "%hhd", "%hhu", "%hd", "%hu", "%hhx"}) {
            ExpectLikePrintf(format, value);
        }
    }
    ExpectLikePrintf("%ld %lld %jd %zd %td", LONG_MIN, LLONG_MAX, INTMAX_MIN, ssize_t{-7}, ptrdiff_t{-9});
    ExpectLikePrintf("%lu %llx %ju %zu %tu", ULONG_MAX, ULLONG_MAX, UINTMAX_MAX, SIZE_MAX, ptrdiff_t{9});
    for (const double value : {0.0, -0.5, 3.14159, 1e300, DBL_MIN, 1.0 / 0.0}) {
        for (const char* format : {"%f", "%.2f", "%12.3e|", "%g", "%#G", "%a", "%lf", "%-20.1A|", "%+E", "%010F"}) {
            ExpectLikePrintf(format, value);
        }
    }
    ExpectLikePrintf("%Lf %.3Lg %d", 2.5L, LDBL_MAX, 7);
    ExpectLikePrintf("%s|%10s|%-10s|%.2s|%s", "abc", "abc", "abc", "abc", "");
    ExpectLikePrintf("%c%3c%-3c|", 'a', 'b', 'c');
    ExpectLikePrintf("%p %20p", static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234));
    ExpectLikePrintf("%*d|%*d|%-*s|", 6, 42, -6, 42, 5, "x");
    ExpectLikePrintf("%.*s|%.*s|%*.*f|", 2, "abc", -1, "abc", 8, 2, 1.239);
    EXPECT_EQ(Format(false, "100%% %{public}d", 7), "100% 7");
}

TEST(LogFormatTest, HidesWhatIsNotPublicAndStaysInStep)
{
    const char* format = "%s|%{public}s|%{private}-3.1s|%{public}d";
    EXPECT_EQ(Format(false, format, "a", "b", "c", 4), "<private>|b|<private>|4");
    EXPECT_EQ(Format(true, format, "a", "b", "c", 4), "a|b|c  |4");
    // Hidden arguments of every kind are passed over whole, their widths included.
    EXPECT_EQ(Format(false, "%Lf%f%lld%hhd%c%p%*.*d%{public}s", 1.0L, 2.0, 3LL, 4, '5', nullptr, 6, 7, 8, "end"),
        "<private><private><private><private><private><private><private>end");
    EXPECT_EQ(Format(false, "%{public}s", static_cast<const char*>(nullptr)), "(null)");
    // A text with a precision need not be terminated.
    const char open[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Format(false, "%{public}.3s", open), "abc");
}

TEST(LogFormatTest, EndsAtAConversionItDoesNotKnow)
{
    for (const char* bad : {"%", "%{", "%{public", "%{public}", "%{secret}s", "%n", "%{public}n", "%{public}hhn", "%y",
             "%1$d", "%{public}ls", "%lc", "%hs", "%Ld", "%hf", "%zf", "%lp", "%{public}5", "%-", "%.", "%ll", "%'d",
             "%{public}%d", "% "}) {
        const std::string format = std::string("%{public}d ") + bad;
        EXPECT_EQ(Format(true, format.c_str(), 1, "x", "y", "z"), "1 <bad format>") << bad;
    }
}

template <typename... Args>
constexpr bool Fits(const char* format, log_format::Marker rule = log_format::Marker::REQUIRED)
{
    return log_format::FaultOf<Args...>(format, rule) == nullptr;
}

TEST(LogFormatTest, AFormatFitsItsArgumentsOrDoesNotCompile)
{
    using log_format::Marker;
    enum Open : uint8_t {};
    enum class Closed {};
    static_assert(Fits<char[4], char*, const void*, float>("%{public}s %{private}-9.3s%% %{public}p%{public}.1f"));
    static_assert(Fits<int, bool, Open, char>("%{public}d %{public}i %{public}d %{public}c"));
    static_assert(Fits<unsigned, size_t, int64_t, long long>("%{public}08X %{public}zu %{public}ld %{public}lld"));
    static_assert(Fits<int>("%d", Marker::OPTIONAL) && Fits<int>("%{public}d", Marker::PUBLIC));
    static_assert(!Fits<int>("%d") && !Fits<int>("%{private}d", Marker::PUBLIC));
    static_assert(!Fits<int>("%{public}n") && !Fits<int>("%{public}") && !Fits<>("% %"));
    static_assert(!Fits<int>("%{public}s") && !Fits<const char*>("%{public}d") && !Fits<int*>("%{public}s"));
    static_assert(!Fits<long>("%{public}d") && !Fits<int>("%{public}ld") && !Fits<long>("%{public}lld"));
    static_assert(!Fits<unsigned>("%{public}d") && !Fits<int>("%{public}zu") && !Fits<short>("%{public}hd"));
    static_assert(!Fits<Closed>("%{public}d") && !Fits<std::string>("%{public}s") && !Fits<int>("%{public}*d"));
    static_assert(!Fits<>("%{public}d") && !Fits<int, int>("%{public}d"));
}

TEST(LogFormatTest, CutsLongMessagesAndMarksThem)
{
    const std::string exact(3072, 'x');
    EXPECT_EQ(Format(false, "%{public}s", exact.c_str()), exact);
    const std::string cut = exact.substr(0, 3072 - 11) + "<truncated>";
    EXPECT_EQ(Format(false, "%{public}s", (exact + "x").c_str()), cut);
    // What stands behind the cut is not looked at.
    EXPECT_EQ(Format(false, (exact + "%{public}d%{public}s").c_str(), 1, reinterpret_cast<const char*>(1)), cut);
    // Widths that no line can hold are cut like the text, whatever their size.
    EXPECT_EQ(Format(false, "%{public}99999999999d%{public}d", 1, 2).size(), 3072);
    EXPECT_EQ(Format(false, "%{public}.99999999999f", 1e300).size(), 3072);
    for (const int width : {INT_MAX, INT_MIN, INT_MIN + 1}) {
        EXPECT_EQ(Format(false, "%{public}*d%{public}*s", width, 1, width, "x").size(), 3072) << width;
        EXPECT_EQ(Format(false, "%{public}.*s", width, "abc"), "abc") << width;
    }
}

}  // namespace
}  // namespace VEXA
