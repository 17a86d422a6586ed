// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "vexa/ipc/context_object.h"

namespace VEXA {

namespace {

std::string ChosenDirectory()
{
    if (const char* own = std::getenv("VEXA_RUNTIME_DIR"); own != nullptr && *own != '\0') {
        return own;
    }
    if (const char* session = std::getenv("XDG_RUNTIME_DIR"); session != nullptr && *session != '\0') {
        return std::string(session) + "/vexa";
    }
    return geteuid() == 0 ? "/run/vexa" : "";
}

}  // namespace

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
