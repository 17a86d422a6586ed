// SPDX-License-Identifier: Apache-2.0
// Brings a copy to its place in the target, and takes an older one away.
#pragma once

#include <string>

#include "engine_state.h"
#include "tree_copier.h"

namespace VEXA::UpdateEngine {

// Puts the task's staged directory into its place and removes the older package of that name. The task may be gone
// afterwards.
ErrorInfo Place(EngineState& state, const Task& task, const CopiedTree& copied) VEXA_EXCLUDES(state.mutex);

// Notes that what a task has staged is in its place.
void NotePlaced(EngineState& state, const Task& task) VEXA_REQUIRES(state.mutex);

// Moves what has the name to a staging name that no task's copy will have, from where it is removed as rubbish. False,
// with errno, when it can't be moved.
bool MoveAway(EngineState& state, const std::string& name) VEXA_REQUIRES(state.mutex);

// Removes what is in staging, and its mark. Ends early when the engine does.
void RemoveStaged(const EngineState& state, const std::string& name) VEXA_EXCLUDES(state.mutex);

}  // namespace VEXA::UpdateEngine
