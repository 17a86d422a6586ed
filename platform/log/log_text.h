// SPDX-License-Identifier: Apache-2.0
// A record as one line of text.
#pragma once

#include <climits>

#include "text_buffer.h"
#include "vexa/log/log_sink.h"

namespace VEXA {

// As long as what a pipe takes in one piece, less the line feed.
using LineBuffer = TextBuffer<PIPE_BUF - 1>;

// Appends the line of ToLogLine. Uses no locale and no time zone, whose locks a child after fork may find taken.
void ComposeLine(LineBuffer& out, const LogRecord& record);

}  // namespace VEXA
