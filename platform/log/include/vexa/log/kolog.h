// SPDX-License-Identifier: Apache-2.0
// The platform's log call.
#pragma once

#include <cstdint>

#include "vexa/base/export.h"

namespace VEXA {

enum KoLogLevel : uint32_t {
    KOLOG_DEBUG = 3,
    KOLOG_INFO = 4,
    KOLOG_WARN = 5,
    KOLOG_ERROR = 6,
    KOLOG_FATAL = 7,
};

// The log type of applications' and services' own lines.
inline constexpr uint32_t KOLOG_TYPE_CORE = 3;

// How a line is labelled.
struct KoLogLabel {
    uint32_t type;
    uint32_t domain;
    const char* tag;
};

// Writes one line. `format` is printf's, where a conversion may carry a privacy marker behind its percent sign:
// "%{public}s" prints the argument, "%{private}s" and a plain "%s" print "<private>" unless the process is a debug one.
// The conversions d i u o x X c s p f e g a (and the upper-case real ones) are known, with flags, width and precision,
// either of them as `*`, and with the lengths hh h l ll z j t L; wide characters, %n and positions are not. A
// conversion that is not known ends the line with "<bad format>", because the arguments behind it can't be told apart.
// A message longer than kLogMessageBytes (docs/logging.md) is cut and ends in "<truncated>".
// May be called from any thread, and from a child after fork; leaves errno alone. Never blocks: a line that the sink
// can't take at once is dropped, counted, and reported by a later line. Costs one comparison when `level` is below the
// process's. Returns the bytes of the message, 0 when it was not wanted, -1 when the format is unusable.
VEXA_EXPORT int KoLogPrint(uint32_t type, uint32_t level, uint32_t domain, const char* tag, const char* format, ...);

// The lowest level that is printed: KOLOG_LEVEL of the environment (debug, info, warn, error, fatal, or a number) as it
// stands at the first line, else info.
VEXA_EXPORT void KoLogSetLevel(uint32_t level);
VEXA_EXPORT uint32_t KoLogGetLevel();
VEXA_EXPORT bool KoLogIsLoggable(uint32_t level);

// Makes this a debug process, whose lines show private arguments, or not. Without the call, KOLOG_DEBUG_PROCESS of the
// environment makes it one, with any value but "" and "0", as it stands at the first line.
VEXA_EXPORT void KoLogSetPrivateShown(bool shown);

}  // namespace VEXA
