// SPDX-License-Identifier: Apache-2.0
// The packages of the source directory, as found there.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "native_migrate/module_info.h"
#include "native_migrate/reserve_records.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// The content of a package's manifest.json, beside the RestoreAppInfo; docs/service.md describes the keys.
struct PackageManifest {
    std::string bundleName;
    std::vector<ModuleInfo> modules;
    int32_t user = 0;
    int32_t targetUser = -1;
    std::string target;
    bool reserved = false;

    static constexpr auto Members()
    {
        using M = PackageManifest;
        return MemberList(Member{"bundleName", &M::bundleName}, Member{"modules", &M::modules},
            Member{"user", &M::user}, Member{"targetUser", &M::targetUser}, Member{"target", &M::target},
            Member{"reserved", &M::reserved});
    }
};

struct Package {
    std::string directory;     // its name in the source
    PackageManifest manifest;  // `bundleName`, `target` and `targetUser` filled in where the file is silent
    RestoreAppInfo app;        // has the names of this package, and for the rest the file's members of the same names
    ErrorInfo fault;           // why it can't be migrated; code 0: it can, as far as is known

    bool IsCalled(const std::string& name) const { return directory == name || manifest.bundleName == name; }
    bool IsOneOf(const std::vector<std::string>& names) const;
};

using PackageRef = std::shared_ptr<const Package>;

// Answers from the directory as it is at the time of the call. Manifests are read again only when they have changed.
// All operations may be called from any thread.
class PackageCatalog {
public:
    explicit PackageCatalog(std::string source) : source_(std::move(source)) {}

    // Every directory of the source, by name. Symbolic links, files and reserved names beside them are no packages.
    // False when the source can't be read.
    bool Read(std::vector<PackageRef>& packages) const;

private:
    // Which manifest has been read, or why none could be.
    struct Stamp {
        int fault = -1;
        int64_t inode = 0;
        int64_t bytes = 0;
        int64_t changed = 0;  // nanoseconds since 1970

        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    // By directory, as it was read last: without the faults that come from others.
    using Contents = std::vector<std::pair<Stamp, PackageRef>>;

    static Stamp StampOf(int sourceFd, const std::string& directory);
    // True when it may be taken for what is there as long as the stamp is the same.
    static bool CanBeKept(const Stamp& stamp, const Package& package);

    const std::string source_;
    mutable Mutex mutex_{LockRank::PackageCatalog};
    mutable std::shared_ptr<const Contents> known_ VEXA_GUARDED_BY(mutex_) = std::make_shared<Contents>();
};

// Reads the manifest of one package directory. Without the file the package is called after its directory.
Package ReadPackage(int sourceFd, const std::string& directory);

}  // namespace VEXA::UpdateEngine
