// SPDX-License-Identifier: Apache-2.0
// printf with privacy markers, into a bounded buffer.
#pragma once

#include <cstdarg>

#include "log_limits.h"
#include "text_buffer.h"

namespace VEXA {

using MessageBuffer = TextBuffer<kLogMessageBytes>;

// Appends the formatted message to `out`. Returns false when a conversion is not one of those that KoLogPrint
// documents; the text then ends in "<bad format>".
bool FormatMessage(MessageBuffer& out, const char* format, va_list given, bool showPrivate);

}  // namespace VEXA
