// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "access_list.h"

namespace VEXA::UpdateEngine {

// Copies what belongs to one file or directory: its content and its attributes. A link is one by a descriptor that
// stands for the link itself (O_PATH). Operations return false, with errno, on failure.
class FileCopier {
public:
    // Is called after every piece; when it returns false, the rest is left out.
    using Advance = std::function<bool(uint64_t bytes)>;

    explicit FileCopier(size_t pieceBytes) : pieceBytes_(pieceBytes) {}

    // Copies the source's present content, up to the size of `status`, and leaves its holes.
    bool CopyContent(int source, int target, const struct stat& status, const Advance& advance)
    {
        constexpr off_t kBlock = 512;
        const off_t size = status.st_size;
        const bool hasHoles = status.st_blocks * kBlock < size;
        for (off_t at = 0; at < size;) {
            off_t end = size;
            if (hasHoles) {
                const off_t data = lseek(source, at, SEEK_DATA);
                if (data < 0 && errno == ENXIO) {
                    break;
                }
                at = std::max(at, data);
                const off_t hole = lseek(source, at, SEEK_HOLE);
                end = hole < at ? size : std::min(hole, size);
            }
            while (at < end) {
                const ssize_t count =
                    CopyPiece(source, target, at, std::min(static_cast<size_t>(end - at), pieceBytes_));
                if (count < 0) {
                    return false;
                }
                at = count == 0 ? end : at + count;
                if (!advance(static_cast<uint64_t>(count))) {
                    return true;
                }
            }
        }
        return !hasHoles || ftruncate(target, size) == 0;
    }

    // Copies owners, attributes, permissions and times.
    bool CopyAttributes(int source, int target, const struct stat& status)
    {
        const timespec times[] = {status.st_atim, status.st_mtim};
        // Owner first, as its change takes set-user-id bits and capabilities away. The times come last: all else
        // changes them.
        if (isRoot_ && fchownat(target, "", status.st_uid, status.st_gid, AT_EMPTY_PATH) != 0) {
            return false;
        }
        std::string names;
        hasFailedReading_ = !List(source, names);
        std::string list;
        const bool done = !hasFailedReading_ && ForEach(names, [&](const char* name) {
            return strcmp(name, kAccessList) == 0 ? Read(source, name, list) : CopyAttribute(source, target, name);
        });
        return done && (S_ISLNK(status.st_mode) || CopyAccess(target, status, list)) &&
               utimensat(target, "", times, AT_EMPTY_PATH) == 0;
    }

    // Takes away the attributes that a new file or directory has inherited from its directory, such as a list.
    static void ClearAttributes(int target)
    {
        std::string names;
        List(target, names);
        ForEach(names, [target](const char* name) { return fremovexattr(target, name) == 0 || true; });
    }

    // True when it was the source that could not be read, and not the target that could not be written.
    bool HasFailedReading() const { return hasFailedReading_; }

    // Says in words what the target's file system could not keep so far.
    std::string Lost() const
    {
        std::string text;
        for (const std::string& kind : lost_) {
            text += (text.empty() ? "the target can't keep its " : " and ") + kind;
        }
        return text;
    }

private:
    static constexpr char kAccessList[] = "system.posix_acl_access";
    static constexpr char kDefaultList[] = "system.posix_acl_default";
    static constexpr size_t kLongest = size_t{64} * 1024;  // the kernel's limit for names and for a value

    // Returns the bytes that were copied, 0 at the source's end.
    ssize_t CopyPiece(int source, int target, off_t at, size_t bytes)
    {
        if (copiesInKernel_) {
            off64_t from = at;
            off64_t to = at;
            const ssize_t count = copy_file_range(source, &from, target, &to, bytes, 0);
            if (count > 0) {
                return count;
            }
            // The kernel can't do that between file systems, for instance. Reading and writing finds any other fault.
            copiesInKernel_ = count == 0;
        }
        buffer_.resize(pieceBytes_);
        const ssize_t count = pread(source, buffer_.data(), bytes, at);
        hasFailedReading_ = count < 0;
        for (ssize_t written = 0; written < count;) {
            const auto rest = static_cast<size_t>(count - written);
            const ssize_t more = pwrite(target, buffer_.data() + written, rest, at + written);
            if (more < 0) {
                return more;
            }
            written += more;
        }
        return count;
    }

    // The attributes of links are reached by this path alone.
    static std::string PathOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

    // Returns the names of all attributes, each with a zero behind it.
    static bool List(int fd, std::string& names)
    {
        ssize_t length = flistxattr(fd, nullptr, 0);
        if (length != 0) {
            names.resize(kLongest);
            length = listxattr(PathOf(fd).c_str(), names.data(), names.size());
        }
        names.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        return length >= 0 || errno == EOPNOTSUPP;
    }

    template <typename Visit>
    static bool ForEach(const std::string& names, const Visit& visit)
    {
        for (const char* name = names.data(); name < names.data() + names.size(); name += strlen(name) + 1) {
            if (!visit(name)) {
                return false;
            }
        }
        return true;
    }

    // Returns the attribute's value, empty when it has gone meanwhile.
    bool Read(int source, const char* name, std::string& value)
    {
        value.resize(kLongest);
        const ssize_t length = getxattr(PathOf(source).c_str(), name, value.data(), value.size());
        value.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        hasFailedReading_ = length < 0 && errno != ENODATA;
        return !hasFailedReading_;
    }

    bool CopyAttribute(int source, int target, const char* name)
    {
        const bool isList = strcmp(name, kDefaultList) == 0;
        std::string value;
        if (!isRoot_ && !isList && strncmp(name, "user.", strlen("user.")) != 0) {
            return true;
        }
        return Read(source, name, value) &&
               Keep(target, name, value, isList ? "access control lists" : "extended attributes");
    }

    bool CopyAccess(int target, const struct stat& status, const std::string& list)
    {
        constexpr mode_t kPermissions = 07777;
        mode_t mode = status.st_mode & kPermissions;
        struct stat copy = status;
        if (!isRoot_ && fstat(target, &copy) != 0) {
            return false;
        }
        if (copy.st_uid != status.st_uid) {
            mode &= ~mode_t{S_ISUID};
        }
        const bool hasOtherGroup = copy.st_gid != status.st_gid;
        mode = list.empty() ? mode : PermissionsWithout(mode, list);
        if (hasOtherGroup) {
            mode = PermissionsOfOtherGroup(mode);
            // On a directory the bit says which group new files have.
            mode &= S_ISDIR(status.st_mode) ? kPermissions : ~mode_t{S_ISGID};
        }
        // A list has an entry for the owning group, which would then hold for the other group.
        return fchmod(target, mode) == 0 &&
               (list.empty() || Keep(hasOtherGroup ? -1 : target, kAccessList, list, "access control lists"));
    }

    // False for a failure that has nothing to do with what the file system can keep.
    bool Keep(int target, const char* name, const std::string& value, const char* kind)
    {
        if (target >= 0 && setxattr(PathOf(target).c_str(), name, value.data(), value.size(), 0) == 0) {
            return true;
        }
        // Some have no space for large values, however much there is for files.
        struct statvfs disk = {};
        if (target >= 0 && (errno == EIO || errno == EDQUOT ||
                               (errno == ENOSPC && (fstatvfs(target, &disk) != 0 || disk.f_bavail == 0)))) {
            return false;
        }
        lost_.insert(kind);
        return true;
    }

    const size_t pieceBytes_;
    const bool isRoot_ = geteuid() == 0;
    std::vector<char> buffer_;  // empty while the kernel copies
    bool copiesInKernel_ = true;
    bool hasFailedReading_ = false;
    std::set<std::string> lost_;
};

}  // namespace VEXA::UpdateEngine
