// SPDX-License-Identifier: Apache-2.0
#include "package_catalog.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

#include "directory.h"
#include "json_parse.h"
#include "native_migrate/migrate_results.h"
#include "plain_name.h"
#include "service_limits.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr char kManifest[] = "manifest.json";

// 0, or the errno of what went wrong.
int ReadSmallFile(int directoryFd, const char* name, std::string& text)
{
    const UniqueFd file(openat(directoryFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(kMaxManifestBytes)) {
        return EFBIG;
    }
    text.resize(static_cast<size_t>(status.st_size));
    const ssize_t count = read(file.Get(), text.data(), text.size());
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return count < 0 ? errno : 0;
}

ErrorInfo ReadManifest(int packageFd, PackageManifest& manifest, RestoreAppInfo& app)
{
    std::string text;
    const int fault = ReadSmallFile(packageFd, kManifest, text);
    if (fault == ENOENT) {
        return {};
    }
    if (fault == EACCES) {
        return {MIGRATE_ERROR_UNREADABLE, "its manifest can't be read", false};
    }
    if (fault != 0 || JsonParse::JsonStrToStruct(text, manifest) != JsonError::SUCCESS ||
        JsonParse::JsonStrToStruct(text, app) != JsonError::SUCCESS) {
        return {MIGRATE_ERROR_MANIFEST, "its manifest.json is not a manifest", false};
    }
    const auto& modules = manifest.modules;
    const bool isLong = manifest.bundleName.size() > kLongestName || app.restoreScene.size() > kLongestName ||
                        modules.size() > kMostModules ||
                        std::any_of(modules.begin(), modules.end(),
                            [](const ModuleInfo& module) { return module.id.size() > kLongestName; });
    if (isLong) {
        manifest = {};
        app = {};
        return {MIGRATE_ERROR_MANIFEST, "its manifest.json has too many modules, or too long a name", false};
    }
    return {};
}

void FillIn(Package& package)
{
    PackageManifest& manifest = package.manifest;
    if (manifest.bundleName.empty()) {
        manifest.bundleName = package.directory;
    }
    package.app.packageName = manifest.bundleName;
    package.app.scanSourceDir = package.directory;
    if (manifest.target.empty()) {
        manifest.target = package.directory;
    }
    if (manifest.targetUser < 0) {
        manifest.targetUser = manifest.user;
    }
    if (package.fault.code == 0 && (!IsPlainName(package.directory) || !IsPlainName(manifest.target))) {
        package.fault = {MIGRATE_ERROR_NAME, "its name can't be that of a directory in the target", false};
    }
}

// When several packages would go to the same place, only the first may.
void FindClashes(std::vector<PackageRef>& packages)
{
    std::set<std::string_view> targets;
    for (PackageRef& package : packages) {
        if (!targets.insert(package->manifest.target).second && package->fault.code == 0) {
            Package clash = *package;
            clash.fault = {MIGRATE_ERROR_TARGET, "another package goes to the same place", false};
            package = std::make_shared<const Package>(std::move(clash));
        }
    }
}

bool IsDirectory(int parentFd, const Entry& entry)
{
    struct stat status = {};
    return entry.type == DT_DIR ||
           (entry.type == DT_UNKNOWN && fstatat(parentFd, entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
               S_ISDIR(status.st_mode));
}

}  // namespace

bool Package::IsOneOf(const std::vector<std::string>& names) const
{
    return std::any_of(names.begin(), names.end(), [this](const std::string& name) { return IsCalled(name); });
}

Package ReadPackage(int sourceFd, const std::string& directory)
{
    Package package;
    package.directory = directory;
    const UniqueFd fd(openat(sourceFd, directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd) {
        package.fault = ReadManifest(fd.Get(), package.manifest, package.app);
    } else {
        package.fault = {MIGRATE_ERROR_UNREADABLE, strerror(errno), false};
    }
    FillIn(package);
    return package;
}

PackageCatalog::Stamp PackageCatalog::StampOf(int sourceFd, const std::string& directory)
{
    constexpr int64_t kNanoseconds = 1000000000;
    struct stat status = {};
    if (fstatat(sourceFd, (directory + "/" + kManifest).c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return {errno};
    }
    return {0, static_cast<int64_t>(status.st_ino), status.st_size,
        status.st_ctim.tv_sec * kNanoseconds + status.st_ctim.tv_nsec};
}

bool PackageCatalog::CanBeKept(const Stamp& stamp, const Package& package)
{
    // While the stamp is that new, another change might leave the same time behind.
    constexpr int64_t kTick = 100000000;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return package.fault.code != MIGRATE_ERROR_UNREADABLE &&
           std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() - stamp.changed > kTick;
}

bool PackageCatalog::Read(std::vector<PackageRef>& packages) const
{
    const Directory source(opendir(source_.c_str()), &closedir);
    if (source == nullptr) {
        return false;
    }
    const int fd = dirfd(source.get());
    std::vector<std::string> names;
    for (Entry entry = NextEntry(source); !entry.name.empty(); entry = NextEntry(source)) {
        if (!IsReservedName(entry.name) && IsDirectory(fd, entry)) {
            names.push_back(std::move(entry.name));
        }
    }
    if (errno != 0) {
        return false;
    }
    std::sort(names.begin(), names.end());
    std::shared_ptr<const Contents> before;
    {
        MutexLock lock(mutex_);
        before = known_;
    }
    auto now = std::make_shared<Contents>();
    for (auto earlier = before->begin(); const std::string& name : names) {
        // The stamp is taken first: a manifest that changes while it is read then has another one.
        const Stamp stamp = StampOf(fd, name);
        while (earlier != before->end() && earlier->second->directory < name) {
            ++earlier;
        }
        if (earlier != before->end() && earlier->second->directory == name && earlier->first == stamp) {
            now->push_back(*earlier);
        } else {
            const auto package = std::make_shared<const Package>(ReadPackage(fd, name));
            now->emplace_back(CanBeKept(stamp, *package) ? stamp : Stamp(), package);
        }
    }
    for (const auto& [stamp, package] : *now) {
        packages.push_back(package);
    }
    FindClashes(packages);
    MutexLock lock(mutex_);
    known_ = std::move(now);
    return true;
}

}  // namespace VEXA::UpdateEngine
