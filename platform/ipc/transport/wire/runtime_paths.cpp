// SPDX-License-Identifier: Apache-2.0
#include "runtime_paths.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

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
    if (directory.empty()) {
        IPC_LOGE("no runtime directory: set VEXA_RUNTIME_DIR or XDG_RUNTIME_DIR");
        return false;
    }
    // In the directory that all users share, everyone may add a socket and nobody remove another's; a directory that
    // was there before keeps the mode that its owner gave it.
    const bool shared = directory == "/run/vexa";
    const std::string endpoints = EndpointDirectory();
    if ((mkdir(directory.c_str(), shared ? 0755 : 0700) != 0 && errno != EEXIST) ||
        (mkdir(endpoints.c_str(), 0700) != 0 && errno != EEXIST) || (shared && chmod(endpoints.c_str(), 01777) != 0)) {
        IPC_LOGE("runtime directory %{public}s can't be used: %{public}s", directory.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

void RemoveStaleEndpoints()
{
    DIR* const directory = opendir(EndpointDirectory().c_str());
    if (directory == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(directory)) {
        // Others are sockets that do not listen yet.
        if (std::strspn(entry->d_name, "0123456789abcdef") != 16 || entry->d_name[16] != '\0') {
            continue;
        }
        const std::string path = EndpointDirectory() + "/" + entry->d_name;
        if (!ConnectAtOnce(path) && errno == ECONNREFUSED) {
            unlink(path.c_str());
        }
    }
    closedir(directory);
}

}  // namespace VEXA::ipc
