// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace VEXA::UpdateEngine {

// What the service keeps in the target beside the packages begins with these.
inline constexpr std::string_view STAGING_PREFIX = ".staging-";
inline constexpr std::string_view STATE_PREFIX = ".migrate-state";

// Whether `name` can be a package's directory: one component of a path that leads nowhere else and is not one of the
// service's own.
inline bool IsPlainName(std::string_view name)
{
    constexpr size_t kLongest = 255;
    return !name.empty() && name.size() <= kLongest && name != "." && name != ".." && name.find('/') == name.npos &&
           name.find('\0') == name.npos && name.rfind(STAGING_PREFIX, 0) != 0 && name.rfind(STATE_PREFIX, 0) != 0;
}

}  // namespace VEXA::UpdateEngine
