// SPDX-License-Identifier: Apache-2.0
// The programs that a manager has started.
#pragma once

#include <string>

#include "samgr_world.h"

namespace VEXA::test {

// The living process of that program; -1 when there is none.
inline pid_t PidOfProgram(const SamgrWorld& world, const std::string& program)
{
    constexpr size_t kLongestName = 15;  // the kernel cuts the others
    const std::string name = program.substr(0, kLongestName);
    const std::string parent = std::to_string(world.Manager().Pid()) + " ";
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string stat = FileText(entry.path().string() + "/stat");
        const size_t open = stat.find('(');
        const size_t close = stat.rfind(") ");
        if (close != std::string::npos && stat.compare(open + 1, close - open - 1, name) == 0 &&
            stat[close + 2] != 'Z' && stat.compare(close + 4, parent.size(), parent) == 0) {
            return std::stoi(entry.path().filename());
        }
    }
    return -1;
}

}  // namespace VEXA::test
