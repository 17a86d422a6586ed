// SPDX-License-Identifier: Apache-2.0
// The records of the migration and the restoration of reserved applications.
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/record_members.h"

namespace VEXA::UpdateEngine {

struct ErrorInfo {
    int32_t code = 0;
    std::string reason;
    bool canRetry = false;

    static constexpr auto Members()
    {
        return MemberList(Member{"code", &ErrorInfo::code}, Member{"reason", &ErrorInfo::reason},
            Member{"canRetry", &ErrorInfo::canRetry});
    }
};

struct ReserveMigrationStatus {
    int32_t status = 0;
    ErrorInfo errorInfo;

    static constexpr auto Members()
    {
        return MemberList(
            Member{"status", &ReserveMigrationStatus::status}, Member{"errorInfo", &ReserveMigrationStatus::errorInfo});
    }
};

// The application that a restore event is about.
struct RestoreAppInfo {
    std::string packageName;
    std::string versionName;
    std::string versionCode;
    std::string signature;
    std::string scanSourceDir;
    std::string restoreScene;
    bool isRestoreData = true;
    int32_t abiType = 0;
    bool isTwinApp = false;
    std::string appName;
    int32_t appType = 1;

    static constexpr auto Members()
    {
        return MemberList(Member{"packageName", &RestoreAppInfo::packageName},
            Member{"versionName", &RestoreAppInfo::versionName}, Member{"versionCode", &RestoreAppInfo::versionCode},
            Member{"signature", &RestoreAppInfo::signature}, Member{"scanSourceDir", &RestoreAppInfo::scanSourceDir},
            Member{"restoreScene", &RestoreAppInfo::restoreScene},
            Member{"isRestoreData", &RestoreAppInfo::isRestoreData}, Member{"abiType", &RestoreAppInfo::abiType},
            Member{"isTwinApp", &RestoreAppInfo::isTwinApp}, Member{"appName", &RestoreAppInfo::appName},
            Member{"appType", &RestoreAppInfo::appType});
    }
};

// One event for an observer of the reserve status.
struct RestoreEventInfo {
    RestoreAppInfo restoreAppInfo;
    int32_t status = 0;
    ErrorInfo errorInfo;

    static constexpr auto Members()
    {
        return MemberList(Member{"restoreAppInfo", &RestoreEventInfo::restoreAppInfo},
            Member{"status", &RestoreEventInfo::status}, Member{"errorInfo", &RestoreEventInfo::errorInfo});
    }
};

}  // namespace VEXA::UpdateEngine
