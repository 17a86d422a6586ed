// SPDX-License-Identifier: Apache-2.0
// The callable that a client registers for progress events.
#pragma once

#include <functional>

#include "native_migrate/migrate_records.h"

namespace VEXA::UpdateEngine {

// `onProgress` may be empty. It is called on a thread of the IPC runtime's pool, possibly on several at once.
struct ProgressCallback {
    std::function<void(const MigrateStage&, const EventInfo&)> onProgress;
};

}  // namespace VEXA::UpdateEngine
