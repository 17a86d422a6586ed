// SPDX-License-Identifier: Apache-2.0
#include "migratectl_text.h"

#include <pwd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <locale>

namespace migratectl {

namespace {

// Stands for a byte that begins no character. It is a surrogate, which no valid text contains.
constexpr char32_t kOddByte = 0xdc00;

// Takes the next character off a text that is not empty.
char32_t TakeCharacter(std::string_view& text)
{
    static const auto& utf8 = std::use_facet<std::codecvt<char32_t, char8_t, std::mbstate_t>>(std::locale::classic());
    const auto* const begin = reinterpret_cast<const char8_t*>(text.data());
    const char8_t* end = begin;
    char32_t character = 0;
    char32_t* behind = nullptr;
    std::mbstate_t state = {};
    utf8.in(state, begin, begin + text.size(), end, &character, &character + 1, behind);
    const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
    if (end == begin || isSurrogate) {
        end = begin + 1;
        character = kOddByte + *begin;
    }
    text.remove_prefix(static_cast<size_t>(end - begin));
    return character;
}

// Hands over each character of a text, with its bytes.
template <typename Visit>
void ForEachCharacter(std::string_view text, const Visit& visit)
{
    while (!text.empty()) {
        const std::string_view before = text;
        const char32_t character = TakeCharacter(text);
        visit(character, before.substr(0, before.size() - text.size()));
    }
}

// Returns the columns of a character, -1 for one that a terminal must not get.
int WidthOf(char32_t character)
{
    const bool turns = (character >= 0x202a && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
    return turns ? -1 : wcwidth(static_cast<wchar_t>(character));
}

template <typename... Values>
std::string Format(const char* format, Values... values)
{
    std::array<char, 48> text = {};
    snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

std::string ShowDuration(int64_t seconds)
{
    constexpr long long kMinute = 60;
    const long long minutes = seconds / kMinute;
    return seconds > 0 ? Format("%lld:%02lld:%02lld", minutes / 60, minutes % 60, seconds % kMinute) : "-";
}

std::string ShowDate(int64_t seconds)
{
    const time_t time = seconds;
    tm date = {};
    std::array<char, 48> text = {};
    const bool isThere = time > 0 && localtime_r(&time, &date) != nullptr &&
                         strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %z", &date) > 0;
    return isThere ? text.data() : "-";
}

template <size_t Count>
const char* NameOf(int64_t value, const std::array<const char*, Count>& names)
{
    return value >= 0 && value < static_cast<int64_t>(Count) ? names[static_cast<size_t>(value)] : "unknown";
}

std::string ShowUser(int64_t uid)
{
    const passwd* const user = getpwuid(static_cast<uid_t>(uid));
    return user != nullptr ? user->pw_name : std::to_string(uid);
}

}  // namespace

std::string Clean(std::string_view text)
{
    std::string clean;
    ForEachCharacter(
        text, [&clean](char32_t character, std::string_view bytes) { clean += WidthOf(character) >= 0 ? bytes : "?"; });
    return clean;
}

size_t Columns(std::string_view text)
{
    size_t columns = 0;
    ForEachCharacter(text, [&columns](char32_t character, std::string_view /*bytes*/) {
        columns += static_cast<size_t>(std::max(WidthOf(character), 0));
    });
    return columns;
}

std::string Fit(std::string_view text, size_t columns)
{
    std::string fitting(text);
    if (Columns(text) > columns) {
        fitting.clear();
        size_t taken = 1;  // by the ellipsis
        ForEachCharacter(text, [&](char32_t character, std::string_view bytes) {
            taken += static_cast<size_t>(std::max(WidthOf(character), 0));
            fitting += taken <= columns ? bytes : "";
        });
        fitting += columns > 0 ? "\u2026" : "";
    }
    return fitting.append(columns - std::min(columns, Columns(fitting)), ' ');
}

std::string EscapeOdd(std::string_view json)
{
    constexpr char32_t kDelete = 0x7f;
    constexpr char32_t kLastControl = 0x9f;
    std::string escaped;
    ForEachCharacter(json, [&escaped](char32_t character, std::string_view bytes) {
        const bool isControl = character >= kDelete && character <= kLastControl;
        const bool isOdd = isControl || (character & ~char32_t{0xff}) == kOddByte;
        escaped += isOdd ? Format("\\u%04x", static_cast<unsigned>(character)) : std::string(bytes);
    });
    return escaped;
}

const char* StatusName(int64_t status)
{
    return NameOf(status, std::array{"idle", "running", "paused", "finished", "failed"});
}

std::string ShowBytes(int64_t bytes)
{
    constexpr std::array units{"B", "kB", "MB", "GB", "TB", "PB", "EB"};  // no number is larger
    constexpr double kStep = 1000;
    constexpr double kShownAsStep = 999.95;  // with one digit behind the point
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= (unit == 0 ? kStep : kShownAsStep)) {
        value /= kStep;
        unit++;
    }
    return Format("%.*f %s", unit == 0 ? 0 : 1, value, units[unit]);
}

std::string ShowNumber(std::string_view key, int64_t value)
{
    using Show = std::string (*)(int64_t);
    constexpr Show ShowPercent = [](int64_t percent) { return std::to_string(percent) + " %"; };
    constexpr Show ShowStatus = [](int64_t status) -> std::string { return StatusName(status); };
    constexpr Show ShowReason = [](int64_t reason) -> std::string {
        return NameOf(reason, std::array{"none", "user", "network", "storage", "power"});
    };
    static constexpr std::pair<std::string_view, Show> kinds[] = {{"user", ShowUser}, {"status", ShowStatus},
        {"suspendReason", ShowReason}, {"percent", ShowPercent}, {"progress", ShowPercent},
        {"remainingTime", ShowDuration}, {"requiredTraffic", ShowBytes}, {"requiredMigrationSpace", ShowBytes},
        {"bytes", ShowBytes}, {"startTime", ShowDate}, {"endTime", ShowDate}};
    for (const auto& [name, show] : kinds) {
        if (name == key) {
            return show(value);
        }
    }
    return std::to_string(value);
}

}  // namespace migratectl
