// SPDX-License-Identifier: Apache-2.0
#include "package_catalog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

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
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count = read(file.Get(), text.data() + filled, text.size() - filled);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    text.resize(filled);
    return 0;
}

ErrorInfo ReadManifest(int packageFd, PackageManifest& manifest)
{
    std::string text;
    const int fault = ReadSmallFile(packageFd, kManifest, text);
    if (fault == ENOENT) {
        return {};
    }
    if (fault == EACCES) {
        return {MIGRATE_ERROR_UNREADABLE, "its manifest can't be read", false};
    }
    if (fault != 0 || JsonParse::JsonStrToStruct(text, manifest) != JsonError::SUCCESS) {
        return {MIGRATE_ERROR_MANIFEST, "its manifest.json is not a manifest", false};
    }
    return {};
}

void FillIn(Package& package)
{
    PackageManifest& manifest = package.manifest;
    if (manifest.bundleName.empty()) {
        manifest.bundleName = package.directory;
    }
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
void FindClashes(std::vector<Package>& packages)
{
    std::set<std::string> targets;
    for (Package& package : packages) {
        if (!targets.insert(package.manifest.target).second && package.fault.code == 0) {
            package.fault = {MIGRATE_ERROR_TARGET, "another package goes to the same place", false};
        }
    }
}

}  // namespace

bool Package::IsOneOf(const std::vector<std::string>& names) const
{
    return std::any_of(names.begin(), names.end(), [this](const std::string& name) { return IsCalled(name); });
}

RestoreAppInfo Package::AsRestoreApp() const
{
    return {.packageName = manifest.bundleName,
        .versionName = manifest.versionName,
        .versionCode = manifest.versionCode,
        .signature = manifest.signature,
        .scanSourceDir = directory,
        .restoreScene = manifest.restoreScene,
        .isRestoreData = manifest.isRestoreData,
        .abiType = manifest.abiType,
        .isTwinApp = manifest.isTwinApp,
        .appName = manifest.appName,
        .appType = manifest.appType};
}

Package ReadPackage(int sourceFd, const std::string& directory)
{
    Package package;
    package.directory = directory;
    const UniqueFd fd(openat(sourceFd, directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd) {
        package.fault = ReadManifest(fd.Get(), package.manifest);
    } else {
        package.fault = {MIGRATE_ERROR_UNREADABLE, strerror(errno), false};
    }
    FillIn(package);
    return package;
}

bool PackageCatalog::Read(std::vector<Package>& packages) const
{
    const std::unique_ptr<DIR, int (*)(DIR*)> source(opendir(source_.c_str()), &closedir);
    if (source == nullptr) {
        return false;
    }
    std::vector<std::string> names;
    errno = 0;
    for (const dirent* entry = readdir(source.get()); entry != nullptr; entry = readdir(source.get())) {
        const std::string name = entry->d_name;
        struct stat status = {};
        if (name != "." && name != ".." &&
            fstatat(dirfd(source.get()), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode)) {
            names.push_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        return false;
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        packages.push_back(ReadPackage(dirfd(source.get()), name));
    }
    FindClashes(packages);
    return true;
}

const Package* PackageCatalog::Find(const std::vector<Package>& packages, const std::string& name)
{
    auto found = std::find_if(packages.begin(), packages.end(), [&](const Package& p) { return p.directory == name; });
    if (found == packages.end()) {
        found = std::find_if(packages.begin(), packages.end(), [&](const Package& p) { return p.IsCalled(name); });
    }
    return found != packages.end() ? &*found : nullptr;
}

}  // namespace VEXA::UpdateEngine
