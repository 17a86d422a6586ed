// SPDX-License-Identifier: Apache-2.0
// Reads records from JSON values, by their member lists. Writes no log lines.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "held_value.h"
#include "json_number.h"
#include "native_migrate/record_members.h"
#include "record_traits.h"

namespace VEXA::UpdateEngine {

// A member that is missing keeps its value. One that does not fit ends the reading with false: the members before it
// are set, it and those behind it are as they were.
class JsonToStruct {
public:
    // The member under `key`, the value itself for an empty key. When there is none, `found` becomes false and the
    // result is an absent value.
    static const JsonContext& GetMemberValue(const JsonContext& json, std::string_view key, bool& found)
    {
        if (key.empty()) {
            return json;
        }
        if (json.IsContains(key)) {
            return json[key];
        }
        static const JsonContext fallback;
        found = false;
        return fallback;
    }

    // Sets the listed members of `record`, in the order of `indices`, from the value under `key`.
    template <Record T, size_t... Indices>
    bool TraverseStruct(
        const JsonContext& json, T& record, std::index_sequence<Indices...> /*indices*/, std::string_view key) const
    {
        bool found = true;
        const JsonContext& value = GetMemberValue(json, key, found);
        return !found || (BindMember(value, record, std::get<Indices>(kMembers<T>)) && ...);
    }

    // Sets one field from the value under `key`.
    template <typename Field>
    bool AccessMember(const JsonContext& json, Field& field, std::string_view key) const
    {
        bool found = true;
        const JsonContext& value = GetMemberValue(json, key, found);
        return !found || Bind(value, field);
    }

private:
    // Elements that a vector has room for at once. Beyond that, memory is taken only as elements are really read.
    static constexpr size_t kReservedElements = 1024;

    template <Record T, typename Field>
    bool BindMember(const JsonContext& json, T& record, const Member<T, Field>& member) const
    {
        return AccessMember(json, record.*member.field, member.key);
    }

    static bool Bind(const JsonContext& value, bool& field)
    {
        const auto held = HeldValue<bool>(value);
        if (held.has_value()) {
            field = *held;
        }
        return held.has_value();
    }

    template <Number T>
    static bool Bind(const JsonContext& value, T& field)
    {
        const auto held = HeldValue<double>(value);
        return held.has_value() && StoreNumber(*held, field);
    }

    static bool Bind(const JsonContext& value, std::string& field)
    {
        const auto held = HeldValue<std::string_view>(value);
        if (held.has_value()) {
            field = *held;
        }
        return held.has_value();
    }

    template <Record T>
    bool Bind(const JsonContext& value, T& field) const
    {
        if constexpr (SelfReading<T>) {
            field.FromJson(value, field);
            return true;
        } else {
            return TraverseStruct(value, field, MemberIndices<T>(), "");
        }
    }

    // Appends. The elements before one that does not fit stay.
    template <typename T>
    bool Bind(const JsonContext& value, std::vector<T>& field) const
    {
        const uint32_t kind = value.Type();
        if (kind != JsonContext::ARRAY && kind != JsonContext::NULL_VALUE && kind != JsonContext::ABSENT) {
            return false;
        }
        field.reserve(field.size() + std::min(value.size(), kReservedElements));
        for (const JsonContext& child : value) {
            if (!Bind(child, field.emplace_back())) {
                field.pop_back();
                return false;
            }
        }
        return true;
    }
};

}  // namespace VEXA::UpdateEngine
