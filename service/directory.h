// SPDX-License-Identifier: Apache-2.0
// Directories by their descriptors. Nothing here follows a symbolic link.
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

// Null, with errno, when it can't be opened.
inline Directory OpenDirectory(int parentFd, const std::string& name)
{
    UniqueFd fd(openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DIR* const directory = fd ? fdopendir(fd.Get()) : nullptr;
    if (directory != nullptr) {
        fd.Release();
    }
    return {directory, &closedir};
}

struct Entry {
    std::string name;  // empty at the end, with errno 0, and on failure
    unsigned char type = DT_UNKNOWN;
};

inline Entry NextEntry(const Directory& directory)
{
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory.get());
        std::string name = entry != nullptr ? entry->d_name : "";
        if (name != "." && name != "..") {
            return {std::move(name), entry != nullptr ? entry->d_type : static_cast<unsigned char>(DT_UNKNOWN)};
        }
    }
}

}  // namespace VEXA::UpdateEngine
