// SPDX-License-Identifier: Apache-2.0
// What a client passes to be told of the migration's progress.
#pragma once

#include <functional>

#include "native_migrate/migrate_records.h"

namespace VEXA::UpdateEngine {

// `onProgress` may be empty. It is called on a thread of the IPC runtime's pool, possibly on several at once.
struct ProgressCallback {
    std::function<void(const MigrateStage&, const EventInfo&)> onProgress;
};

}  // namespace VEXA::UpdateEngine
