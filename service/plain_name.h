// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace VEXA::UpdateEngine {

// The names of the service's own files in the target begin with these.
inline constexpr std::string_view kStagingPrefix = ".staging-";
inline constexpr std::string_view kStatePrefix = ".migrate-state";

// Names in the source or target that no package can have: the service's own, and the folder in which a check of the
// file system puts what it has found.
inline bool IsReservedName(std::string_view name)
{
    return name.rfind(kStagingPrefix, 0) == 0 || name.rfind(kStatePrefix, 0) == 0 || name == "lost+found";
}

// True when `name` can be a package's directory: one component of a path that leads nowhere else and is not reserved.
inline bool IsPlainName(std::string_view name)
{
    constexpr size_t kLongest = 255;
    return !name.empty() && name.size() <= kLongest && name != "." && name != ".." && name.find('/') == name.npos &&
           name.find('\0') == name.npos && !IsReservedName(name);
}

}  // namespace VEXA::UpdateEngine
