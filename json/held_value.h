// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <variant>

#include "vexa/json/json_context.h"

namespace VEXA::UpdateEngine {

// Returns the value of `json` when it is a T, else nothing.
template <typename T>
std::optional<T> HeldValue(const JsonContext& json)
{
    const JsonValue value = json.Value();
    const auto* held = std::get_if<std::optional<T>>(&value);
    return held == nullptr ? std::nullopt : *held;
}

}  // namespace VEXA::UpdateEngine
