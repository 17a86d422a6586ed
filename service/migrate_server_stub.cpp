// SPDX-License-Identifier: Apache-2.0
#include "migrate_server_stub.h"

#include <algorithm>
#include <utility>

#include "service_log.h"
#include "vexa/ipc/ipc_skeleton.h"

namespace VEXA::UpdateEngine {

std::span<const RequestRow> MigrateServerStub::Rows()
{
    using enum MigrateRequestCode;
    using Engine = MigrationEngine;
    static constexpr RequestRow kRows[] = {
        {GET_MIGRATE_STATUS, "GetMigrateStatus", By<&Engine::GetStatus>},
        {GET_MIGRATE_INFO, "GetMigrateInfo", By<&Engine::GetInfo>},
        {GET_PAK_MIGRATE_INFO, "GetPakMigrateInfo", By<&Engine::GetPackages>},
        {GET_APK_INFO, "GetApkInfo", By<&Engine::GetBundleNames>},
        {START_MIGRATE, "StartMigrate", By<&Engine::StartAll>},
        {START_PAK_MIGRATE, "StartPakMigrate", By<&Engine::StartPackage>},
        {REMOVE_MIGRATE, "RemoveMigrate", By<&Engine::RemoveUser>},
        {REMOVE_PAK_MIGRATE, "RemovePakMigrate", By<&Engine::RemovePackage>},
        {REGISTER_PROGRESS_CALLBACK, "On", By<&CallbackHub::AddProgress>},
        {UNREGISTER_PROGRESS_CALLBACK, "Off", By<&CallbackHub::RemoveProgress>},
        {SET_MIGRATE_POLICY, "SetMigratePolicy", By<&Engine::SetPolicy>},
        {CHECK_APP_RESTORE, "CheckAppRestore", By<&Engine::CheckRestore>},
        {PRESET_DATA, "PresetData", By<&Engine::SetPreset>},
        {GET_MIGRATE_RESULT, "GetMigrateResult", By<&Engine::GetResult>},
        {GET_MIGRATION_USERS, "GetMigrationUsers", By<&Engine::GetUsers>},
        {GET_MODULE_MIGRATION_POLICY, "GetModuleMigrationPolicy", By<&Engine::GetModulePolicies>},
        {RESUME_MIGRATION, "ResumeMigration", By<&Engine::Resume>},
        {GET_RESTORE_APP_INFOS, "GetRestoreAppInfos", InOneTextBy<&Engine::GetReserved>},
        {RESTORE_APP, "RestoreApp", InOneTextBy<&Engine::Restore>},
        {REGISTER_RESERVE_OBSERVER, "RegisterCallback", By<&CallbackHub::AddObserver>},
        {UNREGISTER_RESERVE_OBSERVER, "UnRegisterCallback", By<&CallbackHub::RemoveObserver>},
        {CLEAR_APP, "ClearApp", InOneTextBy<&Engine::ClearReserved>},
        {CLEAR_ALL_VIRTUAL_DATA, "ClearAllVirtualData", InOneTextBy<&Engine::ClearAllReserved>},
        {GET_RESTORE_APP_STATUS, "GetRestoreAppStatus", InOneTextBy<&Engine::GetRestoreStatus>},
        {NOTIFY_EMPORION_CORE_EVENT, "NotifyEmporionCoreEvent", By<&Engine::Notify>},
        {START_PAK_MIGRATION, "StartPakMigration", By<&Engine::StartPackageAs>},
        {GET_PAK_MIGRATION_TASK_STATUS, "GetPakMigrationTaskStatus", By<&Engine::GetPackageStatus>},
        {GET_MIGRATION_DATA_SIZE, "GetMigrationDataSize", By<&Engine::GetDataSize>},
        {ADJUST_APP_PRIORITY, "AdjustAppPriority", InOneTextBy<&Engine::AdjustPriority>},
        {SET_BACKUP_FILE_OWN, "SetBackupFileOwn", By<&CallbackHub::OwnBackups>},
    };
    return kRows;
}

MigrateServerStub::MigrateServerStub(std::shared_ptr<MigrationEngine> engine, std::shared_ptr<CallbackHub> hub)
    : engine_(std::move(engine)), hub_(std::move(hub)), parts_(*engine_, *hub_)
{}

int32_t MigrateServerStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    const pid_t process = IPCSkeleton::GetCallingPid();
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        SA_LOGE("a request with another interface's token, from process %{public}d", process);
        return MIGRATE_UNREACHABLE;
    }
    const auto row = std::ranges::find(Rows(), static_cast<MigrateRequestCode>(code), &RequestRow::code);
    if (row == Rows().end()) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    const int32_t result = row->answer(parts_, data, reply);
    if (result == MIGRATE_SUCCESS) {
        return MIGRATE_SUCCESS;
    }
    SA_LOGW("request %{public}u of process %{public}d: result %{public}d", code, process, result);
    return MIGRATE_RESULT_OFFSET + result;
}

int32_t MigrateServerStub::SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
{
    MessageOption option;
    const int32_t result = OnRemoteRequest(code, data, reply, option);
    if (result == MIGRATE_SUCCESS) {
        return MIGRATE_SUCCESS;
    }
    return result < MIGRATE_RESULT_OFFSET ? MIGRATE_UNREACHABLE : result - MIGRATE_RESULT_OFFSET;
}

}  // namespace VEXA::UpdateEngine
