// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace VEXA {

// The texts as the exec functions take them, for as long as the texts live.
inline std::vector<char*> ArgumentPointers(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace VEXA
