// SPDX-License-Identifier: Apache-2.0
#include "state_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr const char* kSuffixes[] = {"", "-wal", "-shm", "-journal"};

std::string Reason(const std::string& path)
{
    return path + ": " + strerror(errno);
}

}  // namespace

bool PrepareStateFile(std::string& path, std::string& error)
{
    const std::filesystem::path given(path);
    std::error_code fault;
    const auto directory = std::filesystem::canonical(given.parent_path() / ".", fault);
    if (fault || given.filename().empty()) {
        error = path + ": " + (fault ? fault.message() : "is no file");
        return false;
    }
    path = directory / given.filename();
    constexpr mode_t kPrivate = 0600;
    const UniqueFd made(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivate));
    if (!made && errno != EEXIST) {
        error = Reason(path);
        return false;
    }
    for (const char* const suffix : kSuffixes) {
        struct stat status = {};
        const std::string file = path + suffix;
        if (lstat(file.c_str(), &status) != 0) {
            if (errno == ENOENT) {
                continue;
            }
            error = Reason(file);
            return false;
        }
        if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1) {
            error = file + ": is not a plain file of the service's user, with one name";
            return false;
        }
    }
    return true;
}

bool SetStateAside(const std::string& path, std::string& error)
{
    const std::string aside =
        path + ".damaged-" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
    for (const char* const suffix : kSuffixes) {
        if (rename((path + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT) {
            error = Reason(path + suffix);
            return false;
        }
    }
    return true;
}

// SQLite syncs the log before it moves anything from there to the state.
bool SyncStateFile(const std::string& path)
{
    const UniqueFd log(open((path + "-wal").c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return log ? fsync(log.Get()) == 0 : errno == ENOENT;
}

}  // namespace VEXA::UpdateEngine
