// SPDX-License-Identifier: Apache-2.0
#include "migrate_server_stub.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "service_log.h"
#include "vexa/ipc/ipc_skeleton.h"

// Writes a line that a caller can cause as often as it likes: a few in a second.
#define SA_LOGW_OF_CALLER(...) (IPCSkeleton::MayLogCaller() ? SA_LOGW(__VA_ARGS__) : void())

namespace VEXA::UpdateEngine {

std::span<const RequestRow> MigrateServerStub::Rows()
{
    using enum MigrateRequestCode;
    using enum Reply;
    using enum Who;
    using Engine = MigrationEngine;
    static constexpr RequestRow kRows[] = {
        {GET_MIGRATE_STATUS, "GetMigrateStatus", By<&Engine::GetStatus>, ANYBODY},
        {GET_MIGRATE_INFO, "GetMigrateInfo", By<&Engine::GetInfo>, ANYBODY},
        {GET_PAK_MIGRATE_INFO, "GetPakMigrateInfo", By<&Engine::GetPackages>, ANYBODY},
        {GET_APK_INFO, "GetApkInfo", By<&Engine::GetBundleNames>, ANYBODY},
        {START_MIGRATE, "StartMigrate", By<&Engine::StartAll>, CONTROL},
        {START_PAK_MIGRATE, "StartPakMigrate", By<&Engine::StartPackage>, CONTROL},
        {REMOVE_MIGRATE, "RemoveMigrate", By<&Engine::RemoveUser>, CONTROL},
        {REMOVE_PAK_MIGRATE, "RemovePakMigrate", By<&Engine::RemovePackage>, CONTROL},
        {REGISTER_PROGRESS_CALLBACK, "On", By<&CallbackHub::AddProgress>, ANYBODY},
        {UNREGISTER_PROGRESS_CALLBACK, "Off", By<&CallbackHub::RemoveProgress>, ANYBODY},
        {SET_MIGRATE_POLICY, "SetMigratePolicy", By<&Engine::SetPolicy>, CONTROL},
        {CHECK_APP_RESTORE, "CheckAppRestore", By<&Engine::CheckRestore>, ANYBODY},
        {PRESET_DATA, "PresetData", By<&Engine::SetPreset>, CONTROL},
        {GET_MIGRATE_RESULT, "GetMigrateResult", By<&Engine::GetResult>, ANYBODY},
        {GET_MIGRATION_USERS, "GetMigrationUsers", By<&Engine::GetUsers>, ANYBODY},
        {GET_MODULE_MIGRATION_POLICY, "GetModuleMigrationPolicy", By<&Engine::GetModulePolicies>, ANYBODY},
        {RESUME_MIGRATION, "ResumeMigration", By<&Engine::Resume>, CONTROL},
        {GET_RESTORE_APP_INFOS, "GetRestoreAppInfos", By<&Engine::GetReserved, ONE_TEXT>, ANYBODY},
        {RESTORE_APP, "RestoreApp", By<&Engine::Restore, ONE_TEXT>, CONTROL},
        {REGISTER_RESERVE_OBSERVER, "RegisterCallback", By<&CallbackHub::AddObserver>, ANYBODY},
        {UNREGISTER_RESERVE_OBSERVER, "UnRegisterCallback", By<&CallbackHub::RemoveObserver>, ANYBODY},
        {CLEAR_APP, "ClearApp", By<&Engine::ClearReserved, ONE_TEXT>, CONTROL},
        {CLEAR_ALL_VIRTUAL_DATA, "ClearAllVirtualData", By<&Engine::ClearAllReserved, ONE_TEXT>, CONTROL},
        {GET_RESTORE_APP_STATUS, "GetRestoreAppStatus", By<&Engine::GetRestoreStatus, ONE_TEXT>, ANYBODY},
        {NOTIFY_EMPORION_CORE_EVENT, "NotifyEmporionCoreEvent", By<&Engine::Notify>, CONTROL},
        {START_PAK_MIGRATION, "StartPakMigration", By<&Engine::StartPackageAs>, CONTROL},
        {GET_PAK_MIGRATION_TASK_STATUS, "GetPakMigrationTaskStatus", By<&Engine::GetPackageStatus>, ANYBODY},
        {GET_MIGRATION_DATA_SIZE, "GetMigrationDataSize", By<&Engine::GetDataSize>, ANYBODY},
        {ADJUST_APP_PRIORITY, "AdjustAppPriority", By<&Engine::AdjustPriority, ONE_TEXT>, CONTROL},
        {SET_BACKUP_FILE_OWN, "SetBackupFileOwn", By<&CallbackHub::OwnBackups>, CONTROL},
    };
    return kRows;
}

MigrateServerStub::MigrateServerStub(std::shared_future<RequestParts> parts, std::optional<gid_t> controlGroup)
    : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR), parts_(std::move(parts)), controlGroup_(controlGroup)
{}

int32_t MigrateServerStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    const pid_t process = IPCSkeleton::GetCallingPid();
    if (data.ReadInterfaceToken() != MIGRATE_SERVER_DESCRIPTOR) {
        SA_LOGW_OF_CALLER("a request with another interface's token, from process %{public}d", process);
        return MIGRATE_UNREACHABLE;
    }
    const auto row = std::ranges::find(Rows(), static_cast<MigrateRequestCode>(code), &RequestRow::code);
    if (row == Rows().end()) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    if (row->who == Who::CONTROL) {
        const uid_t user = IPCSkeleton::GetCallingUid();
        if (user != 0 && user != geteuid() && !(controlGroup_ && IPCSkeleton::IsCallerInGroup(*controlGroup_))) {
            SA_LOGW_OF_CALLER("%{public}s of process %{public}d, user %{public}u: refused", row->name, process, user);
            return MIGRATE_RESULT_OFFSET + MIGRATE_NOT_ALLOWED;
        }
        SA_LOGI("%{public}s of process %{public}d, user %{public}u", row->name, process, user);
    }
    const bool isReady = parts_.wait_for(kStartWait) == std::future_status::ready;
    const int32_t result = isReady ? row->answer(parts_.get(), data, reply) : MIGRATE_INTERNAL;
    if (result == MIGRATE_SUCCESS) {
        return MIGRATE_SUCCESS;
    }
    SA_LOGW_OF_CALLER("request %{public}u of process %{public}d: result %{public}d", code, process, result);
    return MIGRATE_RESULT_OFFSET + result;
}

}  // namespace VEXA::UpdateEngine
