// SPDX-License-Identifier: Apache-2.0
// The files of the state on disk, before the database opens them: the state itself and what SQLite keeps beside it.
#pragma once

#include <string>

namespace VEXA::UpdateEngine {

// False, with the reason, when one of them is a link, no plain file, another user's, or known under a second name:
// whoever made it would decide what the service does. Makes the state where there is none, for its user alone.
// Afterwards no directory on `path` is a link.
bool PrepareStateFile(std::string& path, std::string& error);

// Renames them, with the time, so that a new state can begin. False, with the reason, when that fails.
bool SetStateAside(const std::string& path, std::string& error);

// Waits until the disk has what has been committed. False, with errno, when it can't take it.
bool SyncStateFile(const std::string& path);

}  // namespace VEXA::UpdateEngine
