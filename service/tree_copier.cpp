// SPDX-License-Identifier: Apache-2.0
#include "tree_copier.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "native_migrate/migrate_results.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kPermissions = 07777;

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

Directory OpenDirectory(int parentFd, const std::string& name)
{
    UniqueFd fd(openat(parentFd, name.c_str(), kOpenDirectory));
    DIR* const directory = fd ? fdopendir(fd.Get()) : nullptr;
    if (directory != nullptr) {
        fd.Release();
    }
    return {directory, &closedir};
}

// The next entry's name; empty at the end, with errno 0, and on failure.
std::string NextName(const Directory& directory)
{
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory.get());
        if (entry == nullptr) {
            return {};
        }
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            return entry->d_name;
        }
    }
}

// What a walk through a tree has met: the path to where it is, and the first fault.
class Walk {
public:
    Walk(int targetFd, std::function<bool()> goOn) : goOn_(std::move(goOn)) { fstat(targetFd, &target_); }

    ErrorInfo Fault() && { return std::move(fault_); }

protected:
    class Step {
    public:
        Step(Walk& walk, const std::string& name) : walk_(walk), length_(walk.path_.size())
        {
            walk.path_ += (length_ == 0 ? "" : "/") + name;
        }
        ~Step() { walk_.path_.resize(length_); }
        Step(const Step&) = delete;
        Step& operator=(const Step&) = delete;

    private:
        Walk& walk_;
        const size_t length_;
    };

    // All return false, for a walk to end with.
    bool Fail(ErrorInfo fault)
    {
        fault_ = std::move(fault);
        if (!path_.empty()) {
            fault_.reason = path_ + ": " + fault_.reason;
        }
        return false;
    }
    bool Fail(int32_t code, const std::string& reason, bool canRetry = false) { return Fail({code, reason, canRetry}); }
    bool FailReading() { return Fail(MIGRATE_ERROR_UNREADABLE, strerror(errno)); }
    bool FailWriting() { return Fail(WriteFault(errno)); }
    bool FailStopped() { return Fail(MIGRATE_ERROR_STOPPED, "stopped", true); }

    // Opens a directory of the tree; null when it can't be. A target within the tree would be copied into itself.
    Directory Enter(int parentFd, const std::string& name, int depth, struct stat& status)
    {
        Directory directory = OpenDirectory(parentFd, name);
        if (directory == nullptr || fstat(dirfd(directory.get()), &status) != 0) {
            FailReading();
        } else if (depth > kMaxTreeDepth) {
            Fail(MIGRATE_ERROR_UNSUPPORTED, "directories are nested too deeply");
        } else if (status.st_dev == target_.st_dev && status.st_ino == target_.st_ino) {
            Fail(MIGRATE_ERROR_UNSUPPORTED, "holds the target");
        } else {
            return directory;
        }
        return {nullptr, &closedir};
    }
    // Hands each entry's name and status to `visit`, until that returns false.
    template <typename Visit>
    bool ForEachEntry(const Directory& directory, const Visit& visit)
    {
        for (std::string entry = NextName(directory); !entry.empty(); entry = NextName(directory)) {
            const Step step(*this, entry);
            struct stat status = {};
            if (fstatat(dirfd(directory.get()), entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
                return FailReading();
            }
            if (!goOn_()) {
                return FailStopped();
            }
            if (!visit(entry, status)) {
                return false;
            }
        }
        return errno == 0 || FailReading();
    }

private:
    const std::function<bool()> goOn_;
    struct stat target_ = {};
    ErrorInfo fault_;
    std::string path_;
};

class Copier : public Walk {
public:
    Copier(int targetFd, const CopyControl& control, TreeSize& copied)
        : Walk(targetFd, [&control] { return control.advance(0); }),
          control_(control),
          copied_(copied),
          buffer_(control.pieceBytes)
    {}

    bool CopyDirectory(int sourceFd, const std::string& name, int targetFd, const std::string& newName, int depth)
    {
        struct stat status = {};
        const Directory source = Enter(sourceFd, name, depth, status);
        if (source == nullptr) {
            return false;
        }
        const UniqueFd target(MakeDirectory(targetFd, newName));
        if (!target) {
            return FailWriting();
        }
        return ForEachEntry(source, [&](const std::string& entry, const struct stat& entryStatus) {
            return CopyEntry(dirfd(source.get()), entry, entryStatus, target.Get(), depth);
        }) && TakeOver(status, target.Get());
    }

private:
    static int MakeDirectory(int parentFd, const std::string& name)
    {
        constexpr mode_t kPrivate = 0700;
        return mkdirat(parentFd, name.c_str(), kPrivate) == 0 ? openat(parentFd, name.c_str(), kOpenDirectory) : -1;
    }

    bool CopyEntry(int sourceFd, const std::string& name, const struct stat& status, int targetFd, int depth)
    {
        if (S_ISDIR(status.st_mode)) {
            return CopyDirectory(sourceFd, name, targetFd, name, depth + 1);
        }
        copied_.files++;
        if (S_ISREG(status.st_mode)) {
            return CopyFile(sourceFd, name, targetFd);
        }
        if (S_ISLNK(status.st_mode)) {
            return CopyLink(sourceFd, name, targetFd, status);
        }
        return Fail(MIGRATE_ERROR_UNSUPPORTED, "is no file, directory or symbolic link");
    }

    bool CopyFile(int sourceFd, const std::string& name, int targetFd)
    {
        const UniqueFd source(openat(sourceFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat before = {};
        if (!source || fstat(source.Get(), &before) != 0) {
            return FailReading();
        }
        if (!S_ISREG(before.st_mode)) {
            return FailChanged();
        }
        constexpr mode_t kPrivate = 0600;
        const UniqueFd target(
            openat(targetFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivate));
        if (!target) {
            return FailWriting();
        }
        if (!CopyContent(source.Get(), target.Get(), static_cast<uint64_t>(before.st_size))) {
            return false;
        }
        struct stat after = {};
        if (fstat(source.Get(), &after) != 0 || !IsSameContent(before, after)) {
            return FailChanged();
        }
        return TakeOver(before, target.Get());
    }

    // A file that grows as fast as it is copied would never end: beyond its size it has changed.
    bool CopyContent(int source, int target, uint64_t size)
    {
        uint64_t copied = 0;
        for (;;) {
            const ssize_t count = read(source, buffer_.data(), buffer_.size());
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0) {
                return FailReading();
            }
            if (count == 0) {
                return true;
            }
            const auto bytes = static_cast<size_t>(count);
            if (!WriteAll(target, bytes)) {
                return FailWriting();
            }
            copied += bytes;
            copied_.bytes += bytes;
            if (copied > size) {
                return FailChanged();
            }
            if (!control_.advance(bytes)) {
                return FailStopped();
            }
        }
    }

    bool WriteAll(int target, size_t bytes)
    {
        size_t written = 0;
        while (written < bytes) {
            const ssize_t count = write(target, buffer_.data() + written, bytes - written);
            if (count < 0 && errno != EINTR) {
                return false;
            }
            written += count > 0 ? static_cast<size_t>(count) : 0;
        }
        return true;
    }

    static bool IsSameContent(const struct stat& a, const struct stat& b)
    {
        return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
    }
    bool FailChanged() { return Fail(MIGRATE_ERROR_CHANGED, "changed while it was copied", true); }

    bool CopyLink(int sourceFd, const std::string& name, int targetFd, const struct stat& status)
    {
        std::array<char, PATH_MAX + 1> text = {};
        const ssize_t length = readlinkat(sourceFd, name.c_str(), text.data(), text.size() - 1);
        if (length < 0) {
            return FailReading();
        }
        const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
        if (symlinkat(text.data(), targetFd, name.c_str()) != 0 ||
            (geteuid() == 0 &&
                fchownat(targetFd, name.c_str(), status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW) != 0) ||
            utimensat(targetFd, name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0) {
            return FailWriting();
        }
        return true;
    }

    // Owner first: a change of owner takes set-user-id bits away. Times last: writing changes them.
    bool TakeOver(const struct stat& status, int target)
    {
        struct stat copy = {};
        const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
        if ((geteuid() == 0 && fchown(target, status.st_uid, status.st_gid) != 0) || fstat(target, &copy) != 0 ||
            fchmod(target, PermissionsOf(status, copy)) != 0 || futimens(target, times.data()) != 0) {
            return FailWriting();
        }
        return true;
    }

    static mode_t PermissionsOf(const struct stat& original, const struct stat& copy)
    {
        mode_t mode = original.st_mode & kPermissions;
        if (copy.st_uid != original.st_uid) {
            mode &= ~mode_t{S_ISUID};
        }
        // On a directory the bit says which group new files have.
        if (copy.st_gid != original.st_gid && !S_ISDIR(original.st_mode)) {
            mode &= ~mode_t{S_ISGID};
        }
        return mode;
    }

    const CopyControl& control_;
    TreeSize& copied_;
    std::vector<char> buffer_;
};

class Measurer : public Walk {
public:
    Measurer(int targetFd, const std::function<bool()>& goOn, TreeSize& size) : Walk(targetFd, goOn), size_(size) {}

    bool MeasureDirectory(int parentFd, const std::string& name, int depth)
    {
        struct stat directoryStatus = {};
        const Directory directory = Enter(parentFd, name, depth, directoryStatus);
        return directory != nullptr &&
               ForEachEntry(directory, [&](const std::string& entry, const struct stat& status) {
                   if (S_ISDIR(status.st_mode)) {
                       return MeasureDirectory(dirfd(directory.get()), entry, depth + 1);
                   }
                   size_.files++;
                   size_.bytes += S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
                   return true;
               });
    }

private:
    TreeSize& size_;
};

bool RemoveDirectory(int parentFd, const std::string& name, const std::function<bool()>& goOn, int depth)
{
    constexpr mode_t kPrivate = 0700;
    Directory directory = OpenDirectory(parentFd, name);
    if (directory == nullptr && errno == EACCES && fchmodat(parentFd, name.c_str(), kPrivate, 0) == 0) {
        directory = OpenDirectory(parentFd, name);
    }
    if (directory == nullptr || depth > kMaxTreeDepth + 1) {
        return false;
    }
    fchmod(dirfd(directory.get()), kPrivate);
    bool isEmpty = true;
    for (std::string entry = NextName(directory); !entry.empty(); entry = NextName(directory)) {
        if (!goOn()) {
            return false;
        }
        const bool isRemoved = unlinkat(dirfd(directory.get()), entry.c_str(), 0) == 0 ||
                               RemoveDirectory(dirfd(directory.get()), entry, goOn, depth + 1);
        isEmpty = isEmpty && isRemoved;
    }
    return isEmpty && unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0;
}

}  // namespace

ErrorInfo WriteFault(int reason)
{
    const bool isFull = reason == ENOSPC || reason == EDQUOT;
    return {isFull ? MIGRATE_ERROR_NO_SPACE : MIGRATE_ERROR_WRITE, strerror(reason), isFull};
}

ErrorInfo CopyTree(int sourceFd, const std::string& name, int targetFd, const std::string& newName,
    const CopyControl& control, TreeSize& copied)
{
    Copier copier(targetFd, control, copied);
    copier.CopyDirectory(sourceFd, name, targetFd, newName, 0);
    return std::move(copier).Fault();
}

ErrorInfo MeasureTree(
    int sourceFd, const std::string& name, int targetFd, const std::function<bool()>& goOn, TreeSize& size)
{
    Measurer measurer(targetFd, goOn, size);
    measurer.MeasureDirectory(sourceFd, name, 0);
    return std::move(measurer).Fault();
}

bool RemoveTree(int directoryFd, const std::string& name, const std::function<bool()>& goOn)
{
    if (unlinkat(directoryFd, name.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    return RemoveDirectory(directoryFd, name, goOn, 0);
}

}  // namespace VEXA::UpdateEngine
