// SPDX-License-Identifier: Apache-2.0
// The values that travel beside the records.
#pragma once

#include <cstdint>

namespace VEXA::UpdateEngine {

// A stage of the migration. The service defines the stages and may know more of them than are named here: the library
// passes every value on unchanged, so a switch over it needs a default.
enum class MigrateStage : uint32_t {
    NONE = 0,
    PREPARE = 1,
    DOWNLOAD = 2,
    INSTALL = 3,
    RESTORE = 4,
    FINISH = 5,
};

// The argument of SetMigratePolicy. Only `policy` is sent.
struct MigratePolicy {
    int32_t type = 0;
    int32_t policy = 0;
};

}  // namespace VEXA::UpdateEngine
