// SPDX-License-Identifier: Apache-2.0
// The library's records as JSON and as rows of text, by their member lists.
#pragma once

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace migratectl {

template <typename T, typename = void>
inline constexpr bool IS_RECORD = false;
template <typename T>
inline constexpr bool IS_RECORD<T, std::void_t<decltype(T::Members())>> = true;

// A text that is JSON already.
struct RawJson {
    std::string text;
};

void AppendJson(std::string& out, const std::string& text);
inline void AppendJson(std::string& out, const RawJson& json)
{
    out += json.text;
}

template <typename T>
std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>> AppendJson(std::string& out, T value)
{
    if constexpr (std::is_same_v<T, bool>) {
        out += value ? "true" : "false";
    } else if constexpr (std::is_enum_v<T>) {
        out += std::to_string(static_cast<std::underlying_type_t<T>>(value));
    } else {
        out += std::to_string(value);
    }
}

template <typename T>
std::enable_if_t<IS_RECORD<T>> AppendJson(std::string& out, const T& record);

template <typename T>
void AppendJson(std::string& out, const std::vector<T>& list)
{
    out += '[';
    const char* separator = "";
    for (const T& element : list) {
        out += std::exchange(separator, ",");
        AppendJson(out, element);
    }
    out += ']';
}

template <typename T>
std::enable_if_t<IS_RECORD<T>> AppendJson(std::string& out, const T& record)
{
    char open = '{';
    std::apply(
        [&](const auto&... member) {
            ((out += std::exchange(open, ','), out += '"', out += member.key,
                 out += "\":", AppendJson(out, record.*member.field)),
                ...);
        },
        T::Members());
    out += '}';
}

// Names and values of a record, those of nested records with both names.
using Fields = std::vector<std::pair<std::string, std::string>>;

// A value as people read it: a status by its name.
std::string ShowValue(const std::string& key, int64_t value);

template <typename T>
Fields ToFields(const T& record, const std::string& prefix = "")
{
    Fields fields;
    const auto add = [&](const auto& member) {
        const std::string key(member.key);
        const auto& value = record.*member.field;
        using Value = std::decay_t<decltype(value)>;
        if constexpr (IS_RECORD<Value>) {
            for (auto& field : ToFields(value, prefix + key + ".")) {
                fields.push_back(std::move(field));
            }
        } else if constexpr (std::is_same_v<Value, std::string>) {
            fields.emplace_back(prefix + key, value);
        } else if constexpr (std::is_same_v<Value, bool>) {
            fields.emplace_back(prefix + key, value ? "yes" : "no");
        } else if constexpr (std::is_arithmetic_v<Value> || std::is_enum_v<Value>) {
            fields.emplace_back(prefix + key, ShowValue(key, static_cast<int64_t>(value)));
        } else {
            std::string text;
            AppendJson(text, value);
            fields.emplace_back(prefix + key, text);
        }
    };
    std::apply([&](const auto&... member) { (add(member), ...); }, T::Members());
    return fields;
}

}  // namespace migratectl
