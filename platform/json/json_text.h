// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace VEXA {

// Whether the text holds something that a C string can't: a NUL, an escape for one, or an escape without four
// hexadecimal digits, which cJSON takes for one. cJSON would cut keys and strings there without a word.
bool HoldsNul(const std::string& text);

}  // namespace VEXA
