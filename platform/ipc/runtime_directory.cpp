// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "vexa/ipc/context_object.h"

namespace VEXA {

namespace {

// True where the caller's own manager serves, or will serve again once it has been restarted: only one that stops in
// order removes its socket.
bool IsOwnManagers(const std::string& directory)
{
    struct stat owner {};
    struct stat socket {};
    return stat(directory.c_str(), &owner) == 0 && owner.st_uid == geteuid() &&
           stat((directory + "/samgr.sock").c_str(), &socket) == 0;
}

std::string ChosenDirectory()
{
    if (const char* own = secure_getenv("VEXA_RUNTIME_DIR"); own != nullptr && *own != '\0') {
        return own;
    }
    const std::string users = UserRuntimeDirectory();
    return !users.empty() && IsOwnManagers(users) ? users : kSystemRuntimeDirectory;
}

}  // namespace

std::string UserRuntimeDirectory()
{
    const char* session = secure_getenv("XDG_RUNTIME_DIR");
    return session != nullptr && *session != '\0' ? std::string(session) + "/vexa" : "";
}

const std::string& RuntimeDirectory()
{
    static const std::string* const directory = [] {
        const std::string chosen = ChosenDirectory();
        // The working directory may be another one later, and is in the programs that the manager starts.
        std::error_code error;
        const std::string absolute = std::filesystem::absolute(chosen, error);
        return new std::string(error ? chosen : absolute);
    }();
    return *directory;
}

}  // namespace VEXA
