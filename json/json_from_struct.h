// SPDX-License-Identifier: Apache-2.0
// Writes records as compact JSON, by their member lists.
#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>

#include "held_value.h"
#include "json_string.h"
#include "native_migrate/record_members.h"
#include "record_traits.h"

namespace VEXA::UpdateEngine {

// Every value is written with a comma behind it; what encloses it moves back over the last one.
class JsonFromStruct {
public:
    // Closes an object at the end of the scope, also after a member that failed.
    class Depth {
    public:
        explicit Depth(std::stringstream& stream) : stream_(stream) {}
        ~Depth()
        {
            stream_.seekp(-1, std::ios_base::end);
            stream_ << "},";
        }
        Depth(const Depth&) = delete;
        Depth& operator=(const Depth&) = delete;

    private:
        std::stringstream& stream_;
    };

    // Writes a record, or a vector of records or strings, to `out`, whose text is replaced. False when a record's
    // string could not be escaped for want of memory. In a vector that ends the list behind the broken element.
    template <typename T>
    bool TraverseData(std::string& out, const T& data) const
    {
        std::stringstream stream;
        stream.imbue(std::locale::classic());
        const bool written = AccessMember(stream, data, "");
        std::string text = std::move(stream).str();
        if (!text.empty()) {
            text.pop_back();
        }
        out = std::move(text);
        return written;
    }

    // Writes the listed members of `record` as an object, under `key` unless that is empty.
    template <Record T, size_t... Indices>
    bool TraverseStruct(std::stringstream& stream, const T& record, std::index_sequence<Indices...> /*indices*/,
        std::string_view key) const
    {
        WriteKey(stream, key);
        stream << '{';
        const Depth depth(stream);
        return (WriteMember(stream, record, std::get<Indices>(kMembers<T>)) && ...);
    }

    template <Record T>
    bool AccessMember(std::stringstream& stream, const T& field, std::string_view key) const
    {
        return TraverseStruct(stream, field, MemberIndices<T>(), key);
    }

    // True also when an element failed: the list ends with it.
    template <typename T>
    bool AccessMember(std::stringstream& stream, const std::vector<T>& field, std::string_view key) const
    {
        WriteKey(stream, key);
        stream << '[';
        bool commaBehind = false;
        for (const T& element : field) {
            const bool written = AccessMember(stream, element, "");
            commaBehind = commaBehind || written || Record<T>;
            if (!written) {
                break;
            }
        }
        if (commaBehind) {
            stream.seekp(-1, std::ios_base::end);
        }
        stream << "],";
        return true;
    }

    bool AccessMember(std::stringstream& stream, const std::string& field, std::string_view key) const
    {
        WriteKey(stream, key);
        if (!WriteJsonString(stream, field)) {
            return false;
        }
        stream << ',';
        return true;
    }

    bool AccessMember(std::stringstream& stream, bool field, std::string_view key) const
    {
        WriteKey(stream, key);
        stream << (field ? "true," : "false,");
        return true;
    }

    template <Number T>
    bool AccessMember(std::stringstream& stream, T field, std::string_view key) const
    {
        WriteKey(stream, key);
        stream << field << ',';
        return true;
    }

    template <Enumeration T>
    bool AccessMember(std::stringstream& stream, T field, std::string_view key) const
    {
        return AccessMember(stream, static_cast<std::underlying_type_t<T>>(field), key);
    }

    // A value that was read from a text: the same value, as strict JSON. What is not a finite number, what is absent
    // and what memory is too short for becomes null. Always true. No record has such a member, so there is no key.
    bool AccessMember(std::stringstream& stream, const JsonContext& value, std::string_view /*key*/) const
    {
        if (value.Type() == JsonContext::OBJECT || value.Type() == JsonContext::ARRAY) {
            const bool isObject = value.Type() == JsonContext::OBJECT;
            stream << (isObject ? '{' : '[');
            bool commaBehind = false;
            for (const JsonContext& child : value) {
                if (!isObject || WriteJsonString(stream, std::string(child.Key()))) {
                    stream << (isObject ? ":" : "");
                    commaBehind = AccessMember(stream, child, "");
                }
            }
            if (commaBehind) {
                stream.seekp(-1, std::ios_base::end);
            }
            stream << (isObject ? "}," : "],");
            return true;
        }
        if (const auto truth = HeldValue<bool>(value)) {
            return AccessMember(stream, *truth, "");
        }
        if (const auto number = HeldValue<double>(value); number.has_value() && std::isfinite(*number)) {
            std::array<char, 400> digits;  // more than any double has
            const auto end = std::to_chars(digits.begin(), digits.end(), *number, std::chars_format::fixed).ptr;
            stream << std::string_view(digits.data(), static_cast<size_t>(end - digits.data())) << ',';
            return true;
        }
        const auto text = HeldValue<std::string_view>(value);
        if (!text.has_value() || !AccessMember(stream, std::string(*text), "")) {
            stream << "null,";
        }
        return true;
    }

private:
    // Keys are the lists' own and need no escapes.
    static void WriteKey(std::stringstream& stream, std::string_view key)
    {
        if (!key.empty()) {
            stream << '"' << key << "\":";
        }
    }

    template <Record T, typename Field>
    bool WriteMember(std::stringstream& stream, const T& record, const Member<T, Field>& member) const
    {
        return AccessMember(stream, record.*member.field, member.key);
    }
};

// A record, a list, a number or a value that was read, as JSON. What memory is too short for is cut off.
template <typename T>
std::string ToJson(const T& data)
{
    std::string text;
    JsonFromStruct().TraverseData(text, data);
    return text;
}

}  // namespace VEXA::UpdateEngine
