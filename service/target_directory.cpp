// SPDX-License-Identifier: Apache-2.0
#include "target_directory.h"

#include <linux/fs.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <filesystem>
#include <thread>

#include "directory.h"
#include "service_limits.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool TakeNumber(std::string_view& text, int64_t& number)
{
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return fault == std::errc();
}

// A name that StagingName or AsideName has made. Nothing else is removed.
bool IsStagingName(std::string_view name)
{
    int64_t number = 0;
    const bool hasPrefix = name.starts_with(kStagingPrefix);
    name.remove_prefix(hasPrefix ? kStagingPrefix.size() : 0);
    return hasPrefix && TakeNumber(name, number) && number >= 0 && (name.empty() || name == "-old");
}

// All names in a directory; none when it can't be read.
std::vector<std::string> NamesIn(int fd)
{
    std::vector<std::string> names;
    const Directory directory = OpenDirectory(fd, ".");
    for (Entry entry; directory != nullptr && !(entry = NextEntry(directory)).name.empty();) {
        names.push_back(entry.name);
    }
    return names;
}

std::string MarkName(const FileId& id)
{
    return std::to_string(id.inode) + "-" + std::to_string(id.birth);
}

bool IsUnknownFlag(int reason)
{
    return reason == EINVAL || reason == ENOSYS;
}

// The process that has the lock is the one that has last written its number there.
UniqueFd Lock(int target, std::string& error)
{
    constexpr mode_t kPrivate = 0600;
    constexpr auto kPoll = std::chrono::milliseconds(20);
    const std::string name = std::string(kStatePrefix) + ".lock";
    UniqueFd file(openat(target, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kPrivate));
    const auto deadline = std::chrono::steady_clock::now() + kLockWait;
    while (file && flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) {
            error = strerror(errno);
            std::array<char, 24> owner = {};
            if (errno == EWOULDBLOCK && pread(file.Get(), owner.data(), owner.size() - 1, 0) > 0) {
                error = "process " + std::string(owner.data()) + " uses it as its target";
            }
            return {};
        }
        std::this_thread::sleep_for(kPoll);
    }
    const std::string number = std::to_string(getpid());
    if (!file || ftruncate(file.Get(), 0) != 0 || pwrite(file.Get(), number.data(), number.size(), 0) < 0) {
        error = name + ": " + strerror(errno);
        return {};
    }
    return file;
}

}  // namespace

std::unique_ptr<TargetDirectory> TargetDirectory::Open(
    const std::string& path, const std::string& source, std::string& error)
{
    constexpr mode_t kPrivate = 0700;
    const std::string marks = std::string(kStatePrefix) + ".placed";
    UniqueFd target(open(path.c_str(), kOpenDirectory));
    error = target ? "" : strerror(errno);
    UniqueFd lock = target ? Lock(target.Get(), error) : UniqueFd();
    if (lock) {
        std::error_code fault;
        const std::string place = std::filesystem::canonical(source, fault);
        mkdirat(target.Get(), marks.c_str(), kPrivate);
        UniqueFd directory(openat(target.Get(), marks.c_str(), kOpenDirectory | O_NOFOLLOW));
        error = marks + ": " + (directory ? "is not the service's user's" : strerror(errno));
        struct stat status = {};
        if (directory && fstat(directory.Get(), &status) == 0 && status.st_uid == geteuid() && !fault) {
            return std::unique_ptr<TargetDirectory>(
                new TargetDirectory(std::move(target), std::move(lock), std::move(directory), place));
        }
        error = fault ? source + ": " + fault.message() : error;
    }
    error = path + ": " + error;
    return nullptr;
}

std::optional<FileId> TargetDirectory::IdOf(const std::string& name) const
{
    struct statx status = {};
    if (statx(Fd(), name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) != 0) {
        return std::nullopt;
    }
    constexpr int64_t kNanoseconds = 1000000000;
    FileId id;
    id.inode = static_cast<int64_t>(status.stx_ino);
    if ((status.stx_mask & STATX_BTIME) != 0) {
        id.birth = status.stx_btime.tv_sec * kNanoseconds + status.stx_btime.tv_nsec;
    }
    return id;
}

bool TargetDirectory::Rename(const std::string& from, const std::string& to, unsigned flags) const
{
    return (flags == 0 ? renameat(Fd(), from.c_str(), Fd(), to.c_str())
                       : renameat2(Fd(), from.c_str(), Fd(), to.c_str(), flags)) == 0;
}

bool TargetDirectory::MoveToFreeName(const std::string& from, const std::string& to) const
{
    return Rename(from, to, RENAME_NOREPLACE) || (IsUnknownFlag(errno) && Rename(from, to));
}

bool TargetDirectory::Exchange(const std::string& from, const std::string& to, const std::string& aside) const
{
    if (Rename(from, to, RENAME_EXCHANGE)) {
        return true;
    }
    if (!IsUnknownFlag(errno) || !Rename(to, aside)) {
        return false;
    }
    if (Rename(from, to)) {
        return true;
    }
    const int reason = errno;
    Rename(aside, to);
    errno = reason;
    return false;
}

std::vector<std::string> TargetDirectory::StagedNames() const
{
    std::vector<std::string> names = NamesIn(Fd());
    std::erase_if(names, [](const std::string& name) { return !IsStagingName(name); });
    return names;
}

// A mark is a symbolic link, as that is whole or not there; it says "TARGET/SOURCE DIRECTORY/PACKAGE".
std::vector<Mark> TargetDirectory::Marks() const
{
    std::vector<Mark> marks;
    for (const std::string& name : NamesIn(marks_.Get())) {
        Mark mark;
        std::array<char, PATH_MAX + 1> buffer = {};
        std::string_view rest = name;
        // "INODE-BIRTH". The hyphen is taken for the second number's sign.
        if (!TakeNumber(rest, mark.id.inode) || !TakeNumber(rest, mark.id.birth) ||
            readlinkat(marks_.Get(), name.c_str(), buffer.data(), buffer.size() - 1) <= 0) {
            continue;
        }
        mark.id.birth = -mark.id.birth;
        const std::string text = buffer.data();
        const size_t first = text.find('/');
        const size_t last = text.rfind('/');
        if (first < last && text.substr(first + 1, last - first - 1) == source_) {
            mark.target = text.substr(0, first);
            mark.source = text.substr(last + 1);
            if (IsPlainName(mark.target) && IsPlainName(mark.source)) {
                marks.push_back(mark);
            }
        }
    }
    return marks;
}

bool TargetDirectory::SetMark(const Mark& mark) const
{
    const std::string text = mark.target + "/" + source_ + "/" + mark.source;
    RemoveMark(mark.id);
    return symlinkat(text.c_str(), marks_.Get(), MarkName(mark.id).c_str()) == 0 || errno == EPERM ||
           errno == EOPNOTSUPP || errno == ENAMETOOLONG;
}

void TargetDirectory::RemoveMark(const FileId& id) const
{
    unlinkat(marks_.Get(), MarkName(id).c_str(), 0);
}

}  // namespace VEXA::UpdateEngine
