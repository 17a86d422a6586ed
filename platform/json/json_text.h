// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace VEXA {

// True when the text has something that ends a C string: a NUL, an escape for one, or an escape without four
// hexadecimal digits, which cJSON takes for one. cJSON would cut keys and strings there without an error.
bool HoldsNul(const std::string& text);

}  // namespace VEXA
