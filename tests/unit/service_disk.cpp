// SPDX-License-Identifier: Apache-2.0
// A file system that fails as the tests want it, in place of the C library's.
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "service_fixture.h"

namespace VEXA::UpdateEngine::test {

std::atomic<int> g_isStateFull{0};
std::atomic<int> g_failingRename{-1};
std::atomic<int> g_freeBlocks{1 << 30};
std::atomic<int> g_later{0};
std::function<int()> g_disk = [] { return 0; };

static long Result(int reason)
{
    errno = reason;
    return reason == 0 ? 0 : -1;
}

extern "C" int statx(int fd, const char* path, int flags, unsigned mask, struct statx* status) noexcept
{
    const long result = syscall(SYS_statx, fd, path, flags, mask, status);
    status->stx_mask |= STATX_BTIME;
    status->stx_btime.tv_nsec += static_cast<uint32_t>(g_later);
    return static_cast<int>(result);
}

extern "C" int syncfs(int) noexcept
{
    return static_cast<int>(Result(g_disk()));
}

extern "C" int fsync(int)
{
    return static_cast<int>(Result(g_disk()));
}

extern "C" __attribute__((visibility("default"))) ssize_t pwrite64(
    int fd, const void* data, size_t size, off64_t offset)
{
    return g_isStateFull != 0 ? Result(ENOSPC) : syscall(SYS_pwrite64, fd, data, size, offset);
}

extern "C" int fstatvfs(int, struct statvfs* status) noexcept
{
    status->f_frsize = 4096;
    status->f_bavail = static_cast<fsblkcnt_t>(g_freeBlocks);
    return 0;
}

extern "C" int renameat2(int fromFd, const char* from, int toFd, const char* to, unsigned flags) noexcept
{
    const bool isPlain = g_failingRename >= 0;
    return static_cast<int>(isPlain ? Result(EINVAL) : syscall(SYS_renameat2, fromFd, from, toFd, to, flags));
}

extern "C" int renameat(int fromFd, const char* from, int toFd, const char* to) noexcept
{
    const bool fails = g_failingRename > 0 && --g_failingRename == 0;
    return static_cast<int>(fails ? Result(EIO) : syscall(SYS_renameat2, fromFd, from, toFd, to, 0));
}

}  // namespace VEXA::UpdateEngine::test
