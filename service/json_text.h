// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "json_from_struct.h"

namespace VEXA::UpdateEngine {

// A record, or a vector of records or strings, as JSON. What memory is too short for is cut off.
template <typename T>
std::string ToJson(const T& data)
{
    std::string text;
    JsonFromStruct().TraverseData(text, data);
    return text;
}

}  // namespace VEXA::UpdateEngine
