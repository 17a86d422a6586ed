// SPDX-License-Identifier: Apache-2.0
// Binds JSON texts to records, and reads single keys.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

#include "held_value.h"
#include "json_from_struct.h"
#include "json_to_struct.h"
#include "log_line.h"
#include "native_migrate/task_info.h"

namespace VEXA::UpdateEngine {

enum class JsonError : int32_t {
    SUCCESS = 0,
    DATA_ERROR = 1,         // an empty text, or a member that does not fit
    MISSING_PROP = 2,       // the key is absent, or its value of another kind
    TYPE_ERROR = 3,         // not JSON, or a value that does not hold what its kind says
    NUMBER_EXTRA_LONG = 4,  // a number that a double can't hold exactly, or that does not fit the target
};

class JsonParse {
public:
    // Binds a whole text to `out`: a record, a vector of records or a vector of strings, which is appended to. SUCCESS;
    // DATA_ERROR for an empty text; TYPE_ERROR for one that is not JSON; DATA_ERROR when a member does not fit, with
    // what was bound before it kept.
    template <typename T>
    static JsonError JsonStrToStruct(const std::string& text, T& out)
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

    // Reads one member that has to be there. Every failure but DATA_ERROR writes one error line with the key and leaves
    // `target` as it was.
    template <Number T>
    static JsonError GetValueAndSetTo(const JsonContext& json, std::string_view key, T& target)
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
        const bool safe = *number <= MAX_SAFE_NUMBER && *number >= -MAX_SAFE_NUMBER;
        if (!safe || !StoreNumber(*number, target)) {
            KITS_LOGE("number extra long : %{public}s ", std::string(key).c_str());
            return JsonError::NUMBER_EXTRA_LONG;
        }
        return JsonError::SUCCESS;
    }

    template <std::same_as<std::string> T>
    static JsonError GetValueAndSetTo(const JsonContext& json, std::string_view key, T& target)
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
    static JsonError GetValueAndSetTo(const JsonContext& json, std::string_view key, T& target)
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

}  // namespace VEXA::UpdateEngine
