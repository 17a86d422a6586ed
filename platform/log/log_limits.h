// SPDX-License-Identifier: Apache-2.0
// The limits of the log.
#pragma once

#include <chrono>
#include <cstddef>

namespace VEXA {

// Bytes of a message; the rest is cut. Short enough that a line with its header and a few escaped characters fits
// kLogLineBytes.
inline constexpr size_t kLogMessageBytes = 3072;

// Bytes of a line on standard error or in a file, header included; the rest is cut. With its line feed a line is then
// as long as what a pipe takes in one piece, so lines of several processes do not mix.
inline constexpr size_t kLogLineBytes = 4095;

// Lines that the ring of the process keeps. Enough to see what led to a fault, and never more than a few megabytes.
inline constexpr size_t kLogRingLines = 1024;

// Attempts to lock a ring before a line is dropped. Others hold the lock for one copy; only in a child that was forked
// meanwhile it stays locked.
inline constexpr int kLogRingAttempts = 1000;

// Time that the replacement of a sink waits, twice, for the lines that are being written. A sink takes microseconds for
// one; after this time it hangs.
inline constexpr std::chrono::seconds kLogReplaceWait = std::chrono::seconds(5);

}  // namespace VEXA
