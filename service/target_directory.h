// SPDX-License-Identifier: Apache-2.0
// The target, with what the service keeps there beside the packages: its lock, staging directories, and marks.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plain_name.h"
#include "task.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

// Says that a directory of the target is the service's, and where it belongs. It stands beside the packages, so that it
// outlives the state; and under the directory's identity, so that a package and its successor both have theirs.
struct Mark {
    FileId id;
    std::string target;
    std::string source;  // the package's name in the source
};

// One service at a time: the target is locked as long as this lives. From any thread.
class TargetDirectory {
public:
    // Null, with the reason, when it can't be used or another service uses it. Marks are those of packages from
    // `source`; a package of another source is somebody else's.
    static std::unique_ptr<TargetDirectory> Open(
        const std::string& path, const std::string& source, std::string& error);

    static std::string StagingName(uint32_t id) { return std::string(kStagingPrefix) + std::to_string(id); }
    // Where the older package is while the task's copy takes its place, if the file system can't exchange them.
    static std::string AsideName(uint32_t id) { return StagingName(id) + "-old"; }
    static bool IsAsideName(const std::string& name) { return name.ends_with("-old"); }

    int Fd() const { return target_.Get(); }
    std::optional<FileId> IdOf(const std::string& name) const;
    // All names of staging, whoever has left them.
    std::vector<std::string> StagedNames() const;
    std::vector<Mark> Marks() const;
    // False, with errno, when it can't be written. On a file system without links there are no marks.
    bool SetMark(const Mark& mark) const;
    void RemoveMark(const FileId& id) const;

    // Rename, on file systems too that know only the plain way. False, with errno, on failure.
    //
    // Fails with EEXIST or ENOTEMPTY when something has the new name. Where the file system can't rule that out by
    // itself, an empty directory or a file that appears there at that very moment may be replaced.
    bool MoveToFreeName(const std::string& from, const std::string& to) const;
    // Exchanges two names. A file system that can't do that in one step leaves what had the name `to` under the name
    // `aside`, which must be free. Then `to` is free for a moment, and stays free if the process ends just then.
    bool Exchange(const std::string& from, const std::string& to, const std::string& aside) const;

    // Wait until the disk has all that was written; the marks; the names. False, with errno, on failure.
    bool SyncAll() const { return syncfs(target_.Get()) == 0; }
    bool SyncMarks() const { return SyncDirectory(marks_.Get()); }
    bool SyncNames() const { return SyncDirectory(target_.Get()); }

private:
    // Some file systems have nothing to sync in a directory.
    static bool SyncDirectory(int fd) { return fsync(fd) == 0 || errno == EINVAL; }
    bool Rename(const std::string& from, const std::string& to, unsigned flags = 0) const;
    TargetDirectory(UniqueFd target, UniqueFd lock, UniqueFd marks, std::string source)
        : target_(std::move(target)), lock_(std::move(lock)), marks_(std::move(marks)), source_(std::move(source))
    {}

    const UniqueFd target_;
    const UniqueFd lock_;
    const UniqueFd marks_;
    const std::string source_;
};

}  // namespace VEXA::UpdateEngine
