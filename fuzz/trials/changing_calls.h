// SPDX-License-Identifier: Apache-2.0
// Stands in for the C library's calls that change a file system, also for SQLite. One of them, counted from 1, kills
// the process or fails. For one source file of a program.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>

namespace {

enum Mode : int { KILL_BEFORE, KILL_AFTER, NO_SPACE, BAD_DISK, MODES };
std::atomic<int> g_calls{0};
int g_nth = 0;
int g_mode = MODES;
bool g_canExchange = true;

template <typename Result = int, typename... Arguments>
Result Change(long number, Arguments... arguments)
{
    const bool isMeant = ++g_calls == g_nth;
    const long result = isMeant && g_mode != KILL_AFTER ? -1 : syscall(number, arguments...);
    if (isMeant && g_mode <= KILL_AFTER) {
        kill(getpid(), SIGKILL);
    }
    errno = isMeant ? (g_mode == NO_SPACE ? ENOSPC : EIO) : errno;
    return static_cast<Result>(result);
}

int Open(int directory, const char* path, int flags, va_list list)
{
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
    va_end(list);
    return mode != 0 ? Change(SYS_openat, directory, path, flags, mode)
                     : static_cast<int>(syscall(SYS_openat, directory, path, flags, 0));
}

}  // namespace

// In place of the C library's, for SQLite too.
#define CHANGE(result, name, parameters, ...)                                \
    extern "C" __attribute__((visibility("default"))) result name parameters \
    {                                                                        \
        return Change<result>(__VA_ARGS__);                                  \
    }
#define OPEN(name, directory, ...)                                                          \
    extern "C" __attribute__((visibility("default"))) int name(__VA_ARGS__, int flags, ...) \
    {                                                                                       \
        va_list list;                                                                       \
        va_start(list, flags);                                                              \
        return Open(directory, path, flags, list);                                          \
    }
OPEN(openat, fd, int fd, const char* path)
OPEN(open64, AT_FDCWD, const char* path)
CHANGE(int, mkdirat, (int fd, const char* path, mode_t mode) noexcept, SYS_mkdirat, fd, path, mode)
CHANGE(int, unlinkat, (int fd, const char* path, int flags) noexcept, SYS_unlinkat, fd, path, flags)
CHANGE(int, unlink, (const char* path) noexcept, SYS_unlink, path)
CHANGE(int, rename, (const char* from, const char* to) noexcept, SYS_rename, from, to)
CHANGE(int, renameat, (int from, const char* old, int to, const char* name) noexcept, SYS_renameat, from, old, to, name)
CHANGE(int, renameat2, (int from, const char* old, int to, const char* name, unsigned flags) noexcept, SYS_renameat2,
    from, old, to, name, g_canExchange ? flags : ~0U)
CHANGE(int, symlinkat, (const char* text, int fd, const char* path) noexcept, SYS_symlinkat, text, fd, path)
CHANGE(int, fchmod, (int fd, mode_t mode) noexcept, SYS_fchmod, fd, mode)
CHANGE(int, fchown, (int fd, uid_t user, gid_t group) noexcept, SYS_fchown, fd, user, group)
CHANGE(int, fsync, (int fd), SYS_fsync, fd)
CHANGE(int, fdatasync, (int fd), SYS_fdatasync, fd)
CHANGE(int, syncfs, (int fd) noexcept, SYS_syncfs, fd)
CHANGE(int, futimens, (int fd, const timespec* times) noexcept, SYS_utimensat, fd, nullptr, times, 0)
CHANGE(int, ftruncate64, (int fd, off64_t size) noexcept, SYS_ftruncate, fd, size)
CHANGE(ssize_t, pwrite64, (int fd, const void* data, size_t size, off64_t at), SYS_pwrite64, fd, data, size, at)
CHANGE(ssize_t, copy_file_range, (int from, off64_t* at, int to, off64_t* place, size_t size, unsigned flags),
    SYS_copy_file_range, from, at, to, place, size, flags)
