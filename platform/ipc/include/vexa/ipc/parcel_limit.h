// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "vexa/base/export.h"

namespace VEXA {

// Sets how many bytes the parcels that this thread makes from now on may grow to, at most IPC_MAX_PARCEL_BYTES, which
// is also where every thread starts. Returns the limit until now. Received content is not subject to it.
VEXA_EXPORT size_t SetThreadParcelLimit(size_t bytes);

}  // namespace VEXA
