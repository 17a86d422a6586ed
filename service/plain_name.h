// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace VEXA::UpdateEngine {

// What the service keeps in the target beside the packages begins with these.
inline constexpr std::string_view STAGING_PREFIX = ".staging-";
inline constexpr std::string_view STATE_PREFIX = ".migrate-state";

// Names in the source or target that are no package's: the service's own, and where a file system keeps what a check of
// it has found.
inline bool IsReservedName(std::string_view name)
{
    return name.rfind(STAGING_PREFIX, 0) == 0 || name.rfind(STATE_PREFIX, 0) == 0 || name == "lost+found";
}

// True when `name` can be a package's directory: one component of a path that leads nowhere else and is not reserved.
inline bool IsPlainName(std::string_view name)
{
    constexpr size_t kLongest = 255;
    return !name.empty() && name.size() <= kLongest && name != "." && name != ".." && name.find('/') == name.npos &&
           name.find('\0') == name.npos && !IsReservedName(name);
}

}  // namespace VEXA::UpdateEngine
