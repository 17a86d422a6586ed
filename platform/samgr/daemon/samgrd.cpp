// SPDX-License-Identifier: Apache-2.0
// samgrd: the system-ability manager's program.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "command_line.h"
#include "daemon/daemon.h"
#include "vexa/base/standard_streams.h"
#include "vexa/ipc/context_object.h"

namespace {

std::string DefaultProfiles()
{
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return program.parent_path().parent_path() / "share" / "vexa" / "profiles";
}

}  // namespace

int main(int argc, char** argv)
try {
    VEXA::OccupyStandardStreams();
    CLI::App app("Finds system services by number and starts them on demand.", "samgrd");
    std::vector<std::string> profiles;
    std::string runtimeDirectory;
    app.add_option("--profiles", profiles, "Directory of service profiles; may be given more than once")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->default_str(DefaultProfiles());
    app.add_option("--runtime-dir", runtimeDirectory,
           "Directory of the sockets (default: /run/vexa for root and $XDG_RUNTIME_DIR/vexa for others)")
        ->envname("VEXA_RUNTIME_DIR");
    if (const auto status = VEXA::ParseCommandLine(app, argc, argv)) {
        return *status;
    }
    // Unlike a client, a manager does not choose its directory by where another manager serves.
    if (runtimeDirectory.empty()) {
        runtimeDirectory = geteuid() == 0 ? VEXA::kSystemRuntimeDirectory : VEXA::UserRuntimeDirectory();
    }
    setenv("VEXA_RUNTIME_DIR", runtimeDirectory.c_str(), 1);
    return VEXA::samgr::RunDaemon(profiles.empty() ? std::vector<std::string>{DefaultProfiles()} : profiles);
} catch (const std::bad_alloc&) {
    fprintf(stderr, "samgrd: there is not enough memory\n");
    return VEXA::samgr::EXIT_CANT_SERVE;
}
