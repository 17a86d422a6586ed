// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "engine_state.h"

namespace VEXA::UpdateEngine {

// Runs at the start, before the workers: undoes or completes what a sudden end has left half done, and adopts packages
// that have a mark.
void Recover(EngineState& state) VEXA_EXCLUDES(state.mutex);

}  // namespace VEXA::UpdateEngine
