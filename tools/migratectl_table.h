// SPDX-License-Identifier: Apache-2.0
// Records and lists of them as text.
#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "migratectl_text.h"
#include "record_traits.h"

namespace migratectl {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

// Names and values of a record, those of nested records with both names.
using Fields = std::vector<std::pair<std::string, std::string>>;

template <Record T>
Fields ToFields(const T& record, const std::string& prefix = "");

// A list within a record: "1:one, 2:two" of elements with two fields.
template <typename T>
std::string ShowList(const std::vector<T>& list)
{
    std::string text;
    for (const T& element : list) {
        text += text.empty() ? "" : ", ";
        const char* separator = "";
        for (const auto& [name, value] : ToFields(element)) {
            text += std::exchange(separator, ":") + value;
        }
    }
    return text;
}

template <Record T>
Fields ToFields(const T& record, const std::string& prefix)
{
    Fields fields;
    const auto add = [&](const auto& member) {
        const std::string key(member.key);
        const auto& value = record.*member.field;
        using Value = std::decay_t<decltype(value)>;
        if constexpr (Record<Value>) {
            for (auto& field : ToFields(value, prefix + key + ".")) {
                fields.push_back(std::move(field));
            }
        } else if constexpr (IsVector<Value>) {
            fields.emplace_back(prefix + key, ShowList(value));
        } else if constexpr (std::is_same_v<Value, std::string>) {
            fields.emplace_back(prefix + key, value);
        } else if constexpr (std::is_same_v<Value, bool>) {
            fields.emplace_back(prefix + key, value ? "yes" : "no");
        } else {
            fields.emplace_back(prefix + key, ShowNumber(key, static_cast<int64_t>(value)));
        }
    };
    std::apply([&](const auto&... member) { (add(member), ...); }, MEMBERS<T>);
    return fields;
}

// A row's names are the header. Columns are as wide as their longest value; with a width, the widest ones are cut until
// each line fits it. An empty table has no header. Values are cleaned.
std::string FormatTable(const std::vector<Fields>& rows, size_t width);
// One line a field.
std::string FormatFields(const Fields& fields);

}  // namespace migratectl
