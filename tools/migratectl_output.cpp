// SPDX-License-Identifier: Apache-2.0
#include "migratectl_output.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "native_migrate/migrate_protocol.h"
#include "vexa/json/json_context.h"

namespace migratectl {

using namespace VEXA::UpdateEngine;

void AppendJson(std::string& out, const std::string& text)
{
    constexpr unsigned char kFirstPrintable = 0x20;
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < kFirstPrintable) {
            std::array<char, 8> escape = {};
            snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned char>(c));
            out += escape.data();
        } else {
            out += c;
        }
    }
    out += '"';
}

const char* StatusName(int64_t status)
{
    constexpr std::array names{"idle", "running", "paused", "finished", "failed"};
    return status >= 0 && status < static_cast<int64_t>(names.size()) ? names[static_cast<size_t>(status)] : "unknown";
}

bool HasEnded(int64_t status)
{
    return status == static_cast<int64_t>(TaskStatus::FINISHED) || status == static_cast<int64_t>(TaskStatus::FAILED);
}

std::string ShowValue(const std::string& key, int64_t value)
{
    return key == "status" ? StatusName(value) : std::to_string(value);
}

std::string ShowBytes(int64_t bytes)
{
    constexpr std::array units{"B", "kB", "MB", "GB", "TB"};
    constexpr double kStep = 1000;
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= kStep && unit + 1 < units.size()) {
        value /= kStep;
        unit++;
    }
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%.*f %s", unit == 0 ? 0 : 1, value, units[unit]);
    return text.data();
}

std::string Printable(const std::string& text)
{
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7f;
    std::string shown = text;
    for (char& c : shown) {
        const auto byte = static_cast<unsigned char>(c);
        c = byte < kFirstPrintable || byte == kDelete ? '?' : c;
    }
    return shown;
}

void PrintTable(const std::vector<Fields>& rows)
{
    if (rows.empty()) {
        return;
    }
    std::vector<Fields> lines(1);
    for (const auto& [name, value] : rows.back()) {
        lines.front().emplace_back(name, name);
    }
    lines.insert(lines.end(), rows.begin(), rows.end());
    std::vector<size_t> widths;
    for (Fields& line : lines) {
        widths.resize(std::max(widths.size(), line.size()));
        for (size_t i = 0; i < line.size(); ++i) {
            line[i].second = Printable(line[i].second);
            widths[i] = std::max(widths[i], line[i].second.size());
        }
    }
    for (const Fields& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            const bool isLast = i + 1 == line.size();
            printf("%-*s%s", isLast ? 0 : static_cast<int>(widths[i]), line[i].second.c_str(), isLast ? "\n" : "  ");
        }
    }
}

void PrintFields(const Fields& fields)
{
    size_t width = 0;
    for (const auto& [name, value] : fields) {
        width = std::max(width, name.size());
    }
    for (const auto& [name, value] : fields) {
        printf("%-*s  %s\n", static_cast<int>(width), name.c_str(), Printable(value).c_str());
    }
}

namespace {

const char* ResultText(int32_t result)
{
    switch (result) {
        case MIGRATE_BAD_ARGUMENT:
            return "the service does not take these arguments";
        case MIGRATE_NO_SUCH_APP:
            return "no application of that name is set aside";
        case MIGRATE_TOO_MANY:
            return "the service has too many callbacks";
        case MIGRATE_INTERNAL:
            return "the service could not do it";
        case MIGRATE_NOT_ALLOWED:
            return "only root, the service's user and its control group may change anything";
        default:
            return "the service refused";
    }
}

}  // namespace

int Judge(const Options& options, const std::string& what, int32_t result, const BusinessError& error)
{
    const char* const name = what.c_str();
    if (result == MIGRATE_UNREACHABLE) {
        fprintf(stderr, "migratectl: %s: the service can't be reached\n", name);
        return EXIT_UNREACHABLE;
    }
    if (result != MIGRATE_SUCCESS) {
        fprintf(stderr, "migratectl: %s: %s (result %d)\n", name, ResultText(result), result);
        return EXIT_REFUSED;
    }
    if (error.errorNum == 0) {
        return EXIT_DONE;
    }
    if (!options.json) {
        fprintf(stderr, "migratectl: %s: %s (error %d)\n", name, Printable(error.message).c_str(), error.errorNum);
        for (const ErrorMessage& message : error.data) {
            fprintf(stderr, "  %s (error %d)\n", Printable(message.errorMessage).c_str(), message.errorCode);
        }
    }
    return EXIT_REFUSED;
}

std::string ShowJson(const VEXA::JsonContext& value)
{
    const VEXA::JsonValue held = value.Value();
    if (const auto* const text = std::get_if<std::optional<std::string_view>>(&held)) {
        return std::string(text->value_or(""));
    }
    if (const auto* const truth = std::get_if<std::optional<bool>>(&held)) {
        return !truth->has_value() ? "" : **truth ? "yes" : "no";
    }
    return value.Type() == VEXA::JsonContext::NUMBER ? ShowValue(std::string(value.Key()), NumberOf(value)) : "";
}

int64_t NumberOf(const VEXA::JsonContext& value)
{
    const VEXA::JsonValue held = value.Value();
    const auto* const number = std::get_if<std::optional<double>>(&held);
    // Large enough for every count that the service reports.
    constexpr double kLargest = 9007199254740991.0;
    return number != nullptr ? static_cast<int64_t>(std::clamp(number->value_or(0), -kLargest, kLargest)) : 0;
}

RawJson AsRawJson(const std::string& text)
{
    if (!VEXA::JsonContext(text).IsDiscarded()) {
        return {text};
    }
    RawJson quoted;
    AppendJson(quoted.text, text);
    return quoted;
}

}  // namespace migratectl
