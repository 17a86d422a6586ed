// SPDX-License-Identifier: Apache-2.0
// The limits of the printer of long logs.
#pragma once

#include <cstddef>

namespace VEXA::UpdateEngine {

// Bytes of text in one line of a long log; what is longer continues on the next line.
inline constexpr size_t kUpdateLogPieceBytes = 900;

}  // namespace VEXA::UpdateEngine
