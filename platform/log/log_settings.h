// SPDX-License-Identifier: Apache-2.0
// The settings of the log that come from the environment. A set-user-id program ignores them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "vexa/log/log_sink.h"

namespace VEXA {

// The level of KOLOG_LEVEL's text: a name in any case, or a number from 1 on. None for anything else.
std::optional<uint32_t> LevelFromText(std::string_view text);

// The level of KOLOG_LEVEL. A text that is none leaves a line in the sink, and info.
uint32_t EnvironmentLevel();
bool EnvironmentShowsPrivate();
// The sink of KOLOG_SINK, made at the first call and never destroyed, so that lines of exit handlers arrive.
LogSink& EnvironmentSink();

}  // namespace VEXA
