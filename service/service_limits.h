// SPDX-License-Identifier: Apache-2.0
// The limits of the migration service.
#pragma once

#include <chrono>
#include <cstddef>

namespace VEXA::UpdateEngine {

// Bytes of a manifest. A package with a larger one can't be migrated.
inline constexpr size_t kMaxManifestBytes = size_t{1024} * 1024;
// Modules in a manifest. A package with more can't be migrated.
inline constexpr size_t kMostModules = 1024;
// Bytes of a name in a manifest. A package with a longer one can't be migrated.
inline constexpr size_t kLongestName = 1024;
// Levels of directories in a package: every level holds two descriptors while it is copied.
inline constexpr int kMaxTreeDepth = 200;
// Looks at a package's files, after the copy, for what has changed meanwhile and is copied again. What changes still
// fails the package.
inline constexpr int kMostLooks = 3;
// Files and directories of a package that the disk is asked to take one by one. For more it takes all that is
// unwritten, which may be other programs' too.
inline constexpr size_t kMostSynced = 64;
// Bytes copied at once, so that a copy can be stopped and its progress be told.
inline constexpr size_t kPieceBytes = size_t{256} * 1024;
// The longest sleep of a worker that has nothing to do, and how long a thread for deliveries stays without any.
inline constexpr std::chrono::milliseconds kIdle = std::chrono::seconds(1);
// How long the start waits for another process that uses the target or the state: it may just be dying.
inline constexpr std::chrono::milliseconds kLockWait = std::chrono::seconds(2);
// How long a request waits while the state and the target are still being checked. Less than a client waits.
inline constexpr std::chrono::milliseconds kStartWait = std::chrono::seconds(6);

// Callbacks, and as many observers, that can be registered.
inline constexpr size_t kMostReceivers = 2048;
// How long a delivery that is due waits for a thread to become free until another thread is started.
inline constexpr std::chrono::milliseconds kDeliveryPatience = std::chrono::milliseconds(10);
// Time between two deliveries to one receiver, so that quick changes come together.
inline constexpr std::chrono::milliseconds kReportInterval = std::chrono::milliseconds(100);
// Entries that wait for a receiver until only the last of each task is kept. As one text they still fit a parcel.
inline constexpr size_t kMostItems = 65536;
// Bytes of the name that a caller registers an observer under, to bound the service's memory.
inline constexpr size_t kLongestCaller = 1024;
// SetBackupFileOwn requests that wait. One more is refused with MIGRATE_TOO_MANY.
inline constexpr size_t kMostJobs = 64;

}  // namespace VEXA::UpdateEngine
