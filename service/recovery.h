// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "engine_state.h"

namespace VEXA::UpdateEngine {

// What the start does before the workers: undoes, or ends, what a sudden end has left half done, and adopts what has a
// mark.
void Recover(EngineState& state) VEXA_EXCLUDES(state.mutex);

}  // namespace VEXA::UpdateEngine
