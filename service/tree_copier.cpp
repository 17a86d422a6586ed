// SPDX-License-Identifier: Apache-2.0
#include "tree_copier.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

#include "directory.h"
#include "engine_errors.h"
#include "file_copier.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr mode_t kPrivate = 0700;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// True when the errno says that an entry is not there any more, or is something else by now.
bool HasVanished(int reason)
{
    return reason == ENOENT || reason == ELOOP || reason == ENOTDIR;
}

// The state of a walk through a tree: the path to where it is, and the first fault that it has met.
class Walk {
public:
    Walk(int targetFd, std::function<bool()> goOn) : goOn_(std::move(goOn)) { fstat(targetFd, &target_); }

    ErrorInfo Fault() && { return std::move(fault_); }

protected:
    // All return false, for a walk to end with.
    bool Fail(ErrorInfo fault)
    {
        fault_ = std::move(fault);
        if (!path_.empty()) {
            fault_.reason = path_ + ": " + fault_.reason;
        }
        return false;
    }
    bool FailReading() { return Fail({MIGRATE_ERROR_UNREADABLE, strerror(errno), false}); }
    bool FailWriting() { return Fail(WriteFault(errno)); }

    // Opens a directory of the tree; null when it can't be, without a fault when it has vanished meanwhile. A target
    // within the tree would be copied into itself.
    Directory Enter(int parentFd, const std::string& name, int depth, struct stat& status)
    {
        Directory directory = OpenDirectory(parentFd, name);
        if (directory == nullptr && depth > 0 && HasVanished(errno)) {
            return directory;
        }
        if (directory == nullptr || fstat(dirfd(directory.get()), &status) != 0) {
            FailReading();
        } else if (depth > kMaxTreeDepth) {
            Fail({MIGRATE_ERROR_UNSUPPORTED, "directories are nested too deeply", false});
        } else if (status.st_dev == target_.st_dev && status.st_ino == target_.st_ino) {
            Fail({MIGRATE_ERROR_UNSUPPORTED, "holds the target", false});
        } else {
            return directory;
        }
        return {nullptr, &closedir};
    }
    // Hands each entry to `visit`, until that returns false.
    template <typename Visit>
    bool ForEachEntry(const Directory& directory, const Visit& visit)
    {
        const size_t length = path_.size();
        for (Entry entry = NextEntry(directory); !entry.name.empty(); entry = NextEntry(directory)) {
            path_ += (length == 0 ? "" : "/") + entry.name;
            if (!goOn_()) {
                return Fail(Stopped());
            }
            if (!visit(entry)) {
                return false;
            }
            path_.resize(length);
        }
        return errno == 0 || FailReading();
    }
    const std::string& Path() const { return path_; }
    bool HasFailed() const { return fault_.code != 0; }

private:
    const std::function<bool()> goOn_;
    struct stat target_ = {};
    ErrorInfo fault_;
    std::string path_;
};

void Count(const struct stat& status, TreeSize& size)
{
    size.files++;
    size.bytes += S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
    size.space += static_cast<uint64_t>(status.st_blocks) * 512;
}

// A digest of everything that changes with a file or directory. It includes the ctime, which nobody can set back.
uint64_t DigestOf(const struct stat& status)
{
    const int64_t values[] = {status.st_mode, static_cast<int64_t>(status.st_ino), status.st_size,
        status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(values), sizeof(values)});
}

class Copier : public Walk {
public:
    Copier(int targetFd, const CopyControl& control, CopiedTree& copied)
        : Walk(targetFd, [&control] { return control.advance(0); }),
          control_(control),
          copied_(copied),
          files_(control.pieceBytes)
    {}

    void Copy(int sourceFd, const std::string& name, int targetFd, const std::string& newName)
    {
        for (look_ = 0; look_ <= kMostLooks; ++look_) {
            const size_t before = changes_;
            copied_.size = {};
            if (!CopyDirectory(sourceFd, name, targetFd, newName, 0)) {
                return;
            }
            if (changes_ == before) {
                copied_.isOnDisk = control_.syncsFew && synced_ <= kMostSynced;
                copied_.lost = files_.Lost();
                return;
            }
            std::sort(seen_.begin(), seen_.end());
            known_ = std::exchange(seen_, {});
        }
        Fail({MIGRATE_ERROR_CHANGED, lastChange_ + (lastChange_.empty() ? "" : ": ") + "changed while it was copied",
            true});
    }

private:
    // True when this, at the path, is not what an earlier look has met.
    bool IsNew(const struct stat& status)
    {
        seen_.emplace_back(std::hash<std::string>()(Path()), DigestOf(status));
        if (std::binary_search(known_.begin(), known_.end(), seen_.back())) {
            return false;
        }
        changes_++;
        lastChange_ = Path();
        return true;
    }

    bool CopyDirectory(int sourceFd, const std::string& name, int targetFd, const std::string& newName, int depth)
    {
        struct stat status = {};
        const Directory source = Enter(sourceFd, name, depth, status);
        if (source == nullptr) {
            return !HasFailed();
        }
        const size_t before = changes_;
        const bool isNew = IsNew(status);
        const UniqueFd target(OpenCopy(targetFd, newName, depth));
        if (!target) {
            return FailWriting();
        }
        if (isNew && (depth == 0 || look_ > 0)) {
            FileCopier::ClearAttributes(target.Get());
        }
        if (isNew && look_ > 0 && !RemoveVanished(dirfd(source.get()), target.Get())) {
            return FailWriting();
        }
        return ForEachEntry(source, [&](const Entry& entry) {
            return CopyEntry(dirfd(source.get()), entry, target.Get(), depth);
        }) && (changes_ == before || Finish(dirfd(source.get()), target.Get(), status));
    }

    int OpenCopy(int parentFd, const std::string& name, int depth)
    {
        const int known = look_ > 0 ? openat(parentFd, name.c_str(), kOpenDirectory) : -1;
        const bool isMade = known < 0 && (look_ == 0 || (depth > 0 && MakeFree(parentFd, name))) &&
                            mkdirat(parentFd, name.c_str(), kPrivate) == 0;
        return isMade ? openat(parentFd, name.c_str(), kOpenDirectory) : known;
    }

    // In a later look a copy of what was there before may have the name, in a directory that is finished.
    bool MakeFree(int parentFd, const std::string& name) const
    {
        return look_ == 0 || (fchmod(parentFd, kPrivate) == 0 && RemoveTree(parentFd, name, [] { return true; }));
    }

    bool RemoveVanished(int sourceFd, int targetFd)
    {
        const Directory target = OpenDirectory(targetFd, ".");
        for (Entry entry = NextEntry(target); !entry.name.empty(); entry = NextEntry(target)) {
            struct stat status = {};
            if (fstatat(sourceFd, entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 &&
                !MakeFree(targetFd, entry.name)) {
                return false;
            }
        }
        return true;
    }

    bool CopyEntry(int sourceFd, const Entry& entry, int targetFd, int depth)
    {
        struct stat status = {};
        const bool isKnown = entry.type == DT_DIR || (entry.type == DT_REG && look_ == 0);
        if (!isKnown && fstatat(sourceFd, entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return HasVanished(errno) || FailReading();
        }
        const auto type = static_cast<unsigned char>(isKnown ? entry.type : IFTODT(status.st_mode));
        if (type == DT_DIR) {
            return CopyDirectory(sourceFd, entry.name, targetFd, entry.name, depth + 1);
        }
        if (type == DT_REG && look_ == 0) {
            return CopyFile(sourceFd, entry.name, targetFd);
        }
        if (type != DT_REG && type != DT_LNK) {
            return Fail({MIGRATE_ERROR_UNSUPPORTED, "is no file, directory or symbolic link", false});
        }
        if (!IsNew(status)) {
            Count(status, copied_.size);
            return true;
        }
        if (!MakeFree(targetFd, entry.name)) {
            return FailWriting();
        }
        return type == DT_REG ? CopyFile(sourceFd, entry.name, targetFd)
                              : CopyLink(sourceFd, entry.name, targetFd, status);
    }

    bool CopyFile(int sourceFd, const std::string& name, int targetFd)
    {
        const UniqueFd source(openat(sourceFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status = {};
        if (!source || fstat(source.Get(), &status) != 0) {
            return HasVanished(errno) || FailReading();
        }
        // The next look finds what the entry is instead, and what is changed from here on.
        if (!S_ISREG(status.st_mode)) {
            return true;
        }
        if (look_ == 0) {
            IsNew(status);
        }
        constexpr mode_t kMode = 0600;
        const UniqueFd target(
            openat(targetFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
        if (!target) {
            return FailWriting();
        }
        if (look_ > 0) {
            FileCopier::ClearAttributes(target.Get());
        }
        bool goesOn = true;
        const auto advance = [&](uint64_t bytes) { return goesOn = control_.advance(bytes); };
        if (!files_.CopyContent(source.Get(), target.Get(), status, advance)) {
            return FailCopying();
        }
        return goesOn ? Finish(source.Get(), target.Get(), status) : Fail(Stopped());
    }

    bool CopyLink(int sourceFd, const std::string& name, int targetFd, const struct stat& status)
    {
        constexpr int kOpenLink = O_PATH | O_NOFOLLOW | O_CLOEXEC;
        std::array<char, PATH_MAX + 1> text = {};
        const UniqueFd source(openat(sourceFd, name.c_str(), kOpenLink));
        if (!source || readlinkat(source.Get(), "", text.data(), text.size() - 1) < 0) {
            return HasVanished(errno) || FailReading();
        }
        if (symlinkat(text.data(), targetFd, name.c_str()) != 0) {
            return FailWriting();
        }
        const UniqueFd target(openat(targetFd, name.c_str(), kOpenLink));
        return (target && files_.CopyAttributes(source.Get(), target.Get(), status)) || FailCopying();
    }

    bool Finish(int source, int target, const struct stat& status)
    {
        const bool done = files_.CopyAttributes(source, target, status) &&
                          (!control_.syncsFew || ++synced_ > kMostSynced || fsync(target) == 0 || errno == EINVAL);
        return done || FailCopying();
    }
    bool FailCopying() { return files_.HasFailedReading() ? FailReading() : FailWriting(); }

    const CopyControl& control_;
    CopiedTree& copied_;
    FileCopier files_;
    // Hashes of paths, with the digests of what was there: in this look, and in the one before.
    using Seen = std::vector<std::pair<uint64_t, uint64_t>>;
    Seen seen_;
    Seen known_;
    int look_ = 0;
    size_t changes_ = 0;
    size_t synced_ = 0;
    std::string lastChange_;
};

class Measurer : public Walk {
public:
    Measurer(int targetFd, const std::function<bool()>& goOn, TreeSize& size) : Walk(targetFd, goOn), size_(size) {}

    bool MeasureDirectory(int parentFd, const std::string& name, int depth)
    {
        struct stat directoryStatus = {};
        const Directory directory = Enter(parentFd, name, depth, directoryStatus);
        return directory == nullptr ? !HasFailed() : ForEachEntry(directory, [&](const Entry& entry) {
            struct stat status = {};
            if (entry.type != DT_DIR &&
                fstatat(dirfd(directory.get()), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
                return HasVanished(errno) || FailReading();
            }
            if (entry.type == DT_DIR || S_ISDIR(status.st_mode)) {
                return MeasureDirectory(dirfd(directory.get()), entry.name, depth + 1);
            }
            Count(status, size_);
            return true;
        });
    }

private:
    TreeSize& size_;
};

bool RemoveDirectory(int parentFd, const std::string& name, const std::function<bool()>& goOn, int depth)
{
    Directory directory = OpenDirectory(parentFd, name);
    if (directory == nullptr && errno == EACCES && fchmodat(parentFd, name.c_str(), kPrivate, 0) == 0) {
        directory = OpenDirectory(parentFd, name);
    }
    if (directory == nullptr || depth > kMaxTreeDepth + 1) {
        return false;
    }
    fchmod(dirfd(directory.get()), kPrivate);
    bool isEmpty = true;
    for (Entry entry = NextEntry(directory); !entry.name.empty(); entry = NextEntry(directory)) {
        if (!goOn()) {
            return false;
        }
        const bool isRemoved = unlinkat(dirfd(directory.get()), entry.name.c_str(), 0) == 0 ||
                               RemoveDirectory(dirfd(directory.get()), entry.name, goOn, depth + 1);
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
    const CopyControl& control, CopiedTree& copied)
{
    Copier copier(targetFd, control, copied);
    copier.Copy(sourceFd, name, targetFd, newName);
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
