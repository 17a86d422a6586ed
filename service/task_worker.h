// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "engine_state.h"

namespace VEXA::UpdateEngine {

// Carries out the tasks of one kind, one after the other, until the engine stops: then it returns within the time of
// one piece, or that the disk takes for what it has not got yet.
void RunTasks(EngineState& state, TaskKind kind) VEXA_EXCLUDES(state.mutex);

}  // namespace VEXA::UpdateEngine
