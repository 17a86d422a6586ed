// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

namespace VEXA::test {

// The path of a file in the running program's folder.
inline std::string BesideMe(const std::string& file)
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / file).string();
}

}  // namespace VEXA::test
