// SPDX-License-Identifier: Apache-2.0
#include "move.h"

#include <linux/fs.h>

#include <cerrno>
#include <cstdio>

namespace VEXA::UpdateEngine {

namespace {

bool IsUnknownFlag(int reason)
{
    return reason == EINVAL || reason == ENOSYS;
}

bool Move(int directoryFd, const std::string& from, const std::string& to)
{
    return renameat(directoryFd, from.c_str(), directoryFd, to.c_str()) == 0;
}

}  // namespace

bool MoveToFreeName(int directoryFd, const std::string& from, const std::string& to)
{
    return renameat2(directoryFd, from.c_str(), directoryFd, to.c_str(), RENAME_NOREPLACE) == 0 ||
           (IsUnknownFlag(errno) && Move(directoryFd, from, to));
}

bool Exchange(int directoryFd, const std::string& from, const std::string& to, const std::string& aside)
{
    if (renameat2(directoryFd, from.c_str(), directoryFd, to.c_str(), RENAME_EXCHANGE) == 0) {
        return true;
    }
    if (!IsUnknownFlag(errno) || !Move(directoryFd, to, aside)) {
        return false;
    }
    if (Move(directoryFd, from, to)) {
        return true;
    }
    const int reason = errno;
    Move(directoryFd, aside, to);
    errno = reason;
    return false;
}

}  // namespace VEXA::UpdateEngine
