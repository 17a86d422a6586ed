// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "vexa/ipc/parcel_limit.h"

namespace VEXA {

// While it lives, parcels that this thread makes refuse every write that would take them beyond `limitBytes`. Nested
// ones must end in reverse order.
class RefusingParcels {
public:
    explicit RefusingParcels(size_t limitBytes = 0) : previous_(SetThreadParcelLimit(limitBytes)) {}
    ~RefusingParcels() { SetThreadParcelLimit(previous_); }
    RefusingParcels(const RefusingParcels&) = delete;
    RefusingParcels& operator=(const RefusingParcels&) = delete;

private:
    const size_t previous_;
};

}  // namespace VEXA
