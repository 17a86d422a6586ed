// SPDX-License-Identifier: Apache-2.0
// The records of texts that the clients hand through unparsed. docs/service.md describes them to those who read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/migrate_records.h"

namespace VEXA::UpdateEngine {

// One package in the result of the migration.
struct PackageResult {
    std::string source;
    std::string target;
    int32_t status = 0;
    int64_t bytes = 0;
    int64_t files = 0;
    int32_t errorCode = 0;
    std::string errorMessage;

    static constexpr auto Members()
    {
        using M = PackageResult;
        return MemberList(Member{"source", &M::source}, Member{"target", &M::target}, Member{"status", &M::status},
            Member{"bytes", &M::bytes}, Member{"files", &M::files}, Member{"errorCode", &M::errorCode},
            Member{"errorMessage", &M::errorMessage});
    }
};

// The reply of GetMigrateResult. Times are seconds since 1970, 0 where there is none yet.
struct MigrationResult {
    int32_t status = 0;
    uint32_t succeeded = 0;
    uint32_t failed = 0;
    int64_t bytes = 0;
    int64_t startTime = 0;
    int64_t endTime = 0;
    std::vector<PackageResult> packages;

    static constexpr auto Members()
    {
        using M = MigrationResult;
        return MemberList(Member{"status", &M::status}, Member{"succeeded", &M::succeeded},
            Member{"failed", &M::failed}, Member{"bytes", &M::bytes}, Member{"startTime", &M::startTime},
            Member{"endTime", &M::endTime}, Member{"packages", &M::packages});
    }
};

// The reply of CheckAppRestore.
struct AppRestoreCheck {
    std::string bundleName;
    bool canRestore = false;
    std::string reason;  // empty when it can

    static constexpr auto Members()
    {
        using M = AppRestoreCheck;
        return MemberList(
            Member{"bundleName", &M::bundleName}, Member{"canRestore", &M::canRestore}, Member{"reason", &M::reason});
    }
};

// The argument of PresetData: choices for the starts that follow.
struct PresetChoices {
    std::vector<std::string> exclude;  // packages that StartMigrate leaves alone
    std::vector<MigrationUser> users;  // to which user each goes; others go where their manifest says

    static constexpr auto Members()
    {
        using M = PresetChoices;
        return MemberList(Member{"exclude", &M::exclude}, Member{"users", &M::users});
    }
};

// The third text of StartPakMigration.
struct PakMigrationParameters {
    int32_t priority = 0;  // higher goes first

    static constexpr auto Members() { return MemberList(Member{"priority", &PakMigrationParameters::priority}); }
};

}  // namespace VEXA::UpdateEngine
