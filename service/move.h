// SPDX-License-Identifier: Apache-2.0
// Renames within one directory, on file systems too that know only the plain one. False, with errno, on failure.
#pragma once

#include <string>

namespace VEXA::UpdateEngine {

// Fails with EEXIST or ENOTEMPTY when something has the new name. Without help of the file system what only just came
// there may be replaced, if it is an empty directory or no directory.
bool MoveToFreeName(int directoryFd, const std::string& from, const std::string& to);

// Both have the other's name afterwards. A file system that can't do that in one step leaves what had the name `to`
// under the name `aside`, which must be free, and `to` is free for a moment: what ends the process just then leaves
// nothing under that name.
bool Exchange(int directoryFd, const std::string& from, const std::string& to, const std::string& aside);

}  // namespace VEXA::UpdateEngine
