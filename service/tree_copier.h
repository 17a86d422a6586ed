// SPDX-License-Identifier: Apache-2.0
// Copies, measures and removes directory trees. Nothing here follows a symbolic link or leaves the given directories.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "native_migrate/reserve_records.h"
#include "service_limits.h"

namespace VEXA::UpdateEngine {

struct TreeSize {
    uint64_t bytes = 0;  // of regular files
    uint64_t files = 0;  // files and symbolic links
    uint64_t space = 0;  // what they need where holes are kept
};

struct CopiedTree {
    TreeSize size;
    bool isOnDisk = false;  // each file and directory has been synced by itself
    std::string lost;       // what the target's file system can't keep, in words; empty when it keeps all
};

// Told of every `bytes` written, in pieces of at most `pieceBytes`, and with 0 before every entry. May take its time;
// false ends the copy.
struct CopyControl {
    std::function<bool(uint64_t bytes)> advance;
    size_t pieceBytes = kPieceBytes;
    bool syncsFew = false;  // syncs the files and directories of a tree that has at most kMostSynced
};

// Returns the error for the errno with which writing to the target has failed.
ErrorInfo WriteFault(int reason);

// Copies the directory `name` of `sourceFd` to a new directory `newName` of `targetFd`: files with their holes,
// directories and symbolic links with their permissions, access control lists, extended attributes (for others than
// root those of users), times and, for root, owners. Nobody may do more with a copy than with the original: where the
// target can't keep a list, its permissions are narrower. A copy that belongs to somebody else than the original does
// not act in the new owner's name: a file's set-user-id or set-group-id bit stays behind then. Files with several names
// become several files. When all is copied, every file is looked at again, and what has changed is copied again. Code
// 0: done; MIGRATE_ERROR_STOPPED: `advance` said so; MIGRATE_ERROR_CHANGED: it changes again and again;
// MIGRATE_ERROR_UNSUPPORTED also for a tree that holds `targetFd`; else what went wrong. What was copied until then
// stays.
ErrorInfo CopyTree(int sourceFd, const std::string& name, int targetFd, const std::string& newName,
    const CopyControl& control, CopiedTree& copied);

// Measures what CopyTree to `targetFd` would copy. `goOn` is asked before every entry.
ErrorInfo MeasureTree(
    int sourceFd, const std::string& name, int targetFd, const std::function<bool()>& goOn, TreeSize& size);

// Removes what has that name, a directory with everything in it; true when nothing is left. `goOn` is asked before
// every entry.
bool RemoveTree(int directoryFd, const std::string& name, const std::function<bool()>& goOn);

}  // namespace VEXA::UpdateEngine
