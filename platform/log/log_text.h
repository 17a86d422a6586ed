// SPDX-License-Identifier: Apache-2.0
// A record as one line of text.
#pragma once

#include <climits>

#include "log_limits.h"
#include "text_buffer.h"
#include "vexa/log/log_sink.h"

namespace VEXA {

using LineBuffer = TextBuffer<kLogLineBytes>;
static_assert(kLogLineBytes + 1 == PIPE_BUF);

// Appends the line of ToLogLine. Uses no locale and no time zone, whose locks a child after fork may find taken.
void ComposeLine(LineBuffer& out, const LogRecord& record);

}  // namespace VEXA
