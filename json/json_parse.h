// SPDX-License-Identifier: Apache-2.0
// Defines what JsonParse does for the library itself: any JSON text into a record, and single keys.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "held_value.h"
#include "json_from_struct.h"
#include "json_to_struct.h"
#include "log_line.h"
#include "native_migrate/json_parse.h"
#include "native_migrate/task_info.h"

namespace VEXA::UpdateEngine {

// Binds a whole text to `out`: a record, a vector of records or a vector of strings, which is appended to. SUCCESS;
// DATA_ERROR for an empty text; TYPE_ERROR for one that is not JSON; DATA_ERROR when a member does not fit, with
// what was bound before it kept.
template <typename T>
JsonError JsonParse::JsonStrToStruct(const std::string& text, T& out)
{
    if (text.empty()) {
        return JsonError::DATA_ERROR;
    }
    const JsonContext root(text);
    if (root.IsDiscarded()) {
        return JsonError::TYPE_ERROR;
    }
    return JsonToStruct().AccessMember(root, out, "") ? JsonError::SUCCESS : JsonError::DATA_ERROR;
}

// The kinds of what GetValueAndSetTo reads.
class KeyReader {
public:
    template <Number T>
    static JsonError Read(const JsonContext& json, std::string_view key, T& target)
    {
        const JsonContext& value = json[key];
        if (value.Type() != JsonContext::NUMBER) {
            KITS_LOGE("parse tpye error, missing prop : %{public}s ", std::string(key).c_str());
            return JsonError::MISSING_PROP;
        }
        const auto number = HeldValue<double>(value);
        if (!number.has_value()) {
            return HoldsNothing(key);
        }
        const bool safe = *number <= kMaxSafeNumber && *number >= -kMaxSafeNumber;
        if (!safe || !StoreNumber(*number, target)) {
            KITS_LOGE("number extra long : %{public}s ", std::string(key).c_str());
            return JsonError::NUMBER_EXTRA_LONG;
        }
        return JsonError::SUCCESS;
    }

    template <std::same_as<std::string> T>
    static JsonError Read(const JsonContext& json, std::string_view key, T& target)
    {
        const JsonContext& value = json[key];
        if (value.Type() == JsonContext::ABSENT) {
            KITS_LOGE("parse error, missing prop : %{public}s ", std::string(key).c_str());
            return JsonError::MISSING_PROP;
        }
        const auto text = HeldValue<std::string_view>(value);
        if (!text.has_value()) {
            return HoldsNothing(key);
        }
        target = *text;
        return JsonError::SUCCESS;
    }

    // DATA_ERROR when a member of the record does not fit; those before it are set.
    template <Record T>
    static JsonError Read(const JsonContext& json, std::string_view key, T& target)
    {
        const JsonContext& value = json[key];
        if (value.Type() != JsonContext::OBJECT) {
            KITS_LOGE("parse tpye error, missing prop : %{public}s ", std::string(key).c_str());
            return JsonError::MISSING_PROP;
        }
        return JsonToStruct().AccessMember(value, target, "") ? JsonError::SUCCESS : JsonError::DATA_ERROR;
    }

private:
    static JsonError HoldsNothing(std::string_view key)
    {
        KITS_LOGE("type is error : %{public}s ", std::string(key).c_str());
        return JsonError::TYPE_ERROR;
    }
};

// Reads one member that has to be there: a number, a string or a record. Every failure but a record's DATA_ERROR writes
// one error line with the key and leaves `target` as it was.
template <typename T>
JsonError JsonParse::GetValueAndSetTo(const JsonContext& json, std::string_view key, T& target)
{
    return KeyReader::Read(json, key, target);
}

}  // namespace VEXA::UpdateEngine
