// SPDX-License-Identifier: Apache-2.0
// The places of sockets in the runtime directory.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <ctime>
#include <string>

#include "wire.h"

namespace VEXA::ipc {

std::string ContextSocketPath();
std::string EndpointDirectory();
std::string EndpointPath(EndpointId id);

// Makes the runtime directory and its folder of endpoints; false, with a log line, when they can't be used.
bool CreateRuntimeDirectory();
// Remove the socket, or the sockets of all endpoints, of processes that have ended without doing so.
void RemoveIfStale(const std::string& path);
void RemoveStaleEndpoints();

// Says which file a path leads to. The time of its last change tells files apart that have had the same number.
struct FileId {
    dev_t device = 0;
    ino_t number = 0;  // 0: there is no file
    timespec changed{};

    bool Exists() const { return number != 0; }
    bool IsSameFile(const FileId& other) const { return device == other.device && number == other.number; }
    bool operator==(const FileId& other) const
    {
        return IsSameFile(other) && changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
};
// An empty path is the open file itself.
FileId IdOf(const std::string& path, int fd = AT_FDCWD);

}  // namespace VEXA::ipc
