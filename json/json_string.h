// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <string>

namespace VEXA::UpdateEngine {

// Writes `text` as a JSON string, quoted and escaped, up to its first NUL. False, with nothing written, when memory is
// short.
bool WriteJsonString(std::ostream& stream, const std::string& text);

}  // namespace VEXA::UpdateEngine
