// SPDX-License-Identifier: Apache-2.0
#include "runtime_paths.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "ipc_log.h"
#include "socket.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {

std::string ContextSocketPath()
{
    return RuntimeDirectory() + "/samgr.sock";
}

std::string EndpointDirectory()
{
    return RuntimeDirectory() + "/peers";
}

std::string EndpointPath(EndpointId id)
{
    char name[20];
    std::snprintf(name, sizeof(name), "/%016" PRIx64, id);
    return EndpointDirectory() + name;
}

bool CreateRuntimeDirectory()
{
    const std::string& directory = RuntimeDirectory();
    // In the directory that all users share, everyone may add a socket and nobody remove another's; a directory that
    // was there before keeps the mode that its owner gave it.
    const bool shared = directory == kSystemRuntimeDirectory;
    const std::string endpoints = EndpointDirectory();
    if ((mkdir(directory.c_str(), shared ? 0755 : 0700) != 0 && errno != EEXIST) ||
        (mkdir(endpoints.c_str(), 0700) != 0 && errno != EEXIST) || (shared && chmod(endpoints.c_str(), 01777) != 0)) {
        IPC_LOGE("runtime directory %{public}s can't be used: %{public}s", directory.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

void RemoveIfStale(const std::string& path)
{
    if (!ConnectAtOnce(path) && errno == ECONNREFUSED) {
        unlink(path.c_str());
    }
}

void RemoveStaleEndpoints()
{
    // The iterator of the C++ library ends a process that is short of memory.
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(EndpointDirectory().c_str()), &closedir);
    while (const dirent* const entry = directory != nullptr ? readdir(directory.get()) : nullptr) {
        // Others are sockets that do not listen yet.
        const std::string_view name = entry->d_name;
        if (name.size() == 16 && name.find_first_not_of("0123456789abcdef") == name.npos) {
            RemoveIfStale(EndpointDirectory() + "/" + entry->d_name);
        }
    }
}

FileId IdOf(const std::string& path, int fd)
{
    struct stat status {};
    return fstatat(fd, path.c_str(), &status, AT_EMPTY_PATH) == 0 ? FileId{status.st_dev, status.st_ino, status.st_ctim}
                                                                  : FileId();
}

}  // namespace VEXA::ipc
