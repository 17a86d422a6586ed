// SPDX-License-Identifier: Apache-2.0
#include "migrate_server_stub.h"

#include <map>
#include <utility>

#include "json_parse.h"
#include "native_migrate/set_backup_file_own_proxy.h"
#include "request_fields.h"
#include "service_limits.h"
#include "service_log.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

MigrateServerStub::MigrateServerStub(std::shared_ptr<MigrationEngine> engine, std::shared_ptr<CallbackHub> hub)
    : engine_(std::move(engine)),
      hub_(std::move(hub)),
      jobs_(
          {std::chrono::milliseconds(0), kMostJobs},
          [](const std::vector<std::function<void()>>& jobs) {
              for (const auto& job : jobs) {
                  job();
              }
              return true;
          },
          nullptr)
{}

MigrateServerStub::~MigrateServerStub() = default;

MigrateServerStub::Handler MigrateServerStub::FindHandler(uint32_t code)
{
    using Code = MigrateRequestCode;
    using Stub = MigrateServerStub;
    static const std::map<Code, Handler> handlers{
        {Code::GET_MIGRATE_STATUS, &Stub::GetMigrateStatus},
        {Code::GET_MIGRATE_INFO, &Stub::GetMigrateInfo},
        {Code::GET_PAK_MIGRATE_INFO, &Stub::GetPakMigrateInfo},
        {Code::GET_APK_INFO, &Stub::GetApkInfo},
        {Code::START_MIGRATE, &Stub::StartMigrate},
        {Code::START_PAK_MIGRATE, &Stub::StartPakMigrate},
        {Code::REMOVE_MIGRATE, &Stub::RemoveMigrate},
        {Code::REMOVE_PAK_MIGRATE, &Stub::RemovePakMigrate},
        {Code::REGISTER_PROGRESS_CALLBACK, &Stub::RegisterProgress},
        {Code::UNREGISTER_PROGRESS_CALLBACK, &Stub::UnregisterProgress},
        {Code::SET_MIGRATE_POLICY, &Stub::SetMigratePolicy},
        {Code::CHECK_APP_RESTORE, &Stub::CheckAppRestore},
        {Code::PRESET_DATA, &Stub::PresetData},
        {Code::GET_MIGRATE_RESULT, &Stub::GetMigrateResult},
        {Code::GET_MIGRATION_USERS, &Stub::GetMigrationUsers},
        {Code::GET_MODULE_MIGRATION_POLICY, &Stub::GetModuleMigrationPolicy},
        {Code::RESUME_MIGRATION, &Stub::ResumeMigration},
        {Code::GET_RESTORE_APP_INFOS, &Stub::GetRestoreAppInfos},
        {Code::RESTORE_APP, &Stub::RestoreApp},
        {Code::REGISTER_RESERVE_OBSERVER, &Stub::RegisterObserver},
        {Code::UNREGISTER_RESERVE_OBSERVER, &Stub::UnregisterObserver},
        {Code::CLEAR_APP, &Stub::ClearApp},
        {Code::CLEAR_ALL_VIRTUAL_DATA, &Stub::ClearAllVirtualData},
        {Code::GET_RESTORE_APP_STATUS, &Stub::GetRestoreAppStatus},
        {Code::NOTIFY_EMPORION_CORE_EVENT, &Stub::NotifyEmporionCoreEvent},
        {Code::START_PAK_MIGRATION, &Stub::StartPakMigration},
        {Code::GET_PAK_MIGRATION_TASK_STATUS, &Stub::GetPakMigrationTaskStatus},
        {Code::GET_MIGRATION_DATA_SIZE, &Stub::GetMigrationDataSize},
        {Code::ADJUST_APP_PRIORITY, &Stub::AdjustAppPriority},
        {Code::SET_BACKUP_FILE_OWN, &Stub::SetBackupFileOwn},
    };
    const auto found = handlers.find(static_cast<Code>(code));
    return found != handlers.end() ? found->second : nullptr;
}

int32_t MigrateServerStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        SA_LOGE("a request with another interface's token, from process %{public}d", IPCSkeleton::GetCallingPid());
        return MIGRATE_UNREACHABLE;
    }
    const Handler handler = FindHandler(code);
    if (handler == nullptr) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    const int32_t result = (this->*handler)(data, reply);
    if (result == MIGRATE_SUCCESS) {
        return MIGRATE_SUCCESS;
    }
    SA_LOGW("request %{public}u of process %{public}d: result %{public}d", code, IPCSkeleton::GetCallingPid(), result);
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

int32_t MigrateServerStub::GetMigrateStatus(MessageParcel& data, MessageParcel& reply)
{
    MigrateStage stage = MigrateStage::NONE;
    if (!ReadFields(data, stage)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->GetStatus(stage), BusinessError());
}

int32_t MigrateServerStub::GetMigrateInfo(MessageParcel& data, MessageParcel& reply)
{
    MigrateStage stage = MigrateStage::NONE;
    if (!ReadFields(data, stage)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->GetInfo(stage), BusinessError());
}

int32_t MigrateServerStub::GetPakMigrateInfo(MessageParcel& /*data*/, MessageParcel& reply)
{
    std::vector<PakMigrateInfo> packages;
    const BusinessError error = engine_->GetPackages(packages);
    return WriteReply(reply, packages, error);
}

int32_t MigrateServerStub::GetApkInfo(MessageParcel& /*data*/, MessageParcel& reply)
{
    std::vector<std::string> names;
    const BusinessError error = engine_->GetBundleNames(names);
    return WriteReply(reply, names, error);
}

int32_t MigrateServerStub::StartMigrate(MessageParcel& /*data*/, MessageParcel& reply)
{
    return WriteReply(reply, engine_->StartAll());
}

int32_t MigrateServerStub::StartPakMigrate(MessageParcel& data, MessageParcel& reply)
{
    Name package;
    if (!ReadFields(data, package)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->StartPackage(package.text, "", 0));
}

int32_t MigrateServerStub::RemoveMigrate(MessageParcel& data, MessageParcel& reply)
{
    int32_t user = 0;
    if (!ReadFields(data, user) || user < MIGRATE_ALL_USERS) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->RemoveUser(user));
}

int32_t MigrateServerStub::RemovePakMigrate(MessageParcel& data, MessageParcel& reply)
{
    Name package;
    if (!ReadFields(data, package)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->RemovePackage(package.text));
}

int32_t MigrateServerStub::RegisterProgress(MessageParcel& data, MessageParcel& /*reply*/)
{
    const sptr<IRemoteObject> object = data.ReadRemoteObject();
    if (object == nullptr) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const bool isAdded = hub_->AddProgress(
        IPCSkeleton::GetCallingPid(), object, [this](const auto& receive) { engine_->IntroduceTasks(receive); });
    return isAdded ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
}

int32_t MigrateServerStub::UnregisterProgress(MessageParcel& /*data*/, MessageParcel& /*reply*/)
{
    hub_->RemoveProgress(IPCSkeleton::GetCallingPid());
    return MIGRATE_SUCCESS;
}

int32_t MigrateServerStub::SetMigratePolicy(MessageParcel& data, MessageParcel& reply)
{
    int32_t policy = 0;
    if (!ReadFields(data, policy) || (policy != MIGRATE_POLICY_GO_ON && policy != MIGRATE_POLICY_STOP)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->SetPolicy(policy));
}

int32_t MigrateServerStub::CheckAppRestore(MessageParcel& data, MessageParcel& reply)
{
    Name bundle;
    if (!ReadFields(data, bundle)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->CheckRestore(bundle.text), BusinessError());
}

int32_t MigrateServerStub::PresetData(MessageParcel& data, MessageParcel& reply)
{
    std::string text;
    BusinessError error;
    if (!ReadFields(data, text) || !engine_->SetPreset(text, error)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, error);
}

int32_t MigrateServerStub::GetMigrateResult(MessageParcel& /*data*/, MessageParcel& reply)
{
    return WriteReply(reply, engine_->GetResult(), BusinessError());
}

int32_t MigrateServerStub::GetMigrationUsers(MessageParcel& /*data*/, MessageParcel& reply)
{
    std::vector<MigrationUser> users;
    const BusinessError error = engine_->GetUsers(users);
    return WriteReply(reply, users, error);
}

int32_t MigrateServerStub::GetModuleMigrationPolicy(MessageParcel& data, MessageParcel& reply)
{
    bool isOnlyPlaced = false;
    std::string text;
    std::vector<ModuleInfo> modules;
    if (!ReadFields(data, isOnlyPlaced, text) ||
        (!text.empty() && JsonParse::JsonStrToStruct(text, modules) != JsonError::SUCCESS)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    std::vector<ModuleMigrationPolicy> policies;
    const BusinessError error = engine_->GetModulePolicies(isOnlyPlaced, modules, policies);
    return WriteReply(reply, policies, error);
}

int32_t MigrateServerStub::ResumeMigration(MessageParcel& /*data*/, MessageParcel& reply)
{
    return WriteReply(reply, engine_->Resume());
}

int32_t MigrateServerStub::NotifyEmporionCoreEvent(MessageParcel& data, MessageParcel& reply)
{
    const auto want = data.ReadParcelable<AAFwk::Want>();
    if (want == nullptr) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const std::string& action = want->GetAction();
    BusinessError error = MakeError(MIGRATE_ERROR_EVENT, "the service knows no such event");
    if (action == MIGRATE_EVENT_PAUSE) {
        const auto reason = want->GetParam<int32_t>("reason", static_cast<int32_t>(TaskPauseReason::USER));
        error = engine_->Pause(static_cast<TaskPauseReason>(reason));
    } else if (action == MIGRATE_EVENT_RESUME) {
        error = engine_->Resume();
    } else if (action == MIGRATE_EVENT_STOP) {
        error = engine_->RemoveUser(MIGRATE_ALL_USERS);
    }
    return WriteReply(reply, error);
}

int32_t MigrateServerStub::StartPakMigration(MessageParcel& data, MessageParcel& reply)
{
    Name package;
    std::string bundle;
    std::string text;
    PakMigrationParameters parameters;
    if (!ReadFields(data, package, bundle, text) ||
        (!text.empty() && JsonParse::JsonStrToStruct(text, parameters) != JsonError::SUCCESS)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return WriteReply(reply, engine_->StartPackage(package.text, bundle, parameters.priority));
}

int32_t MigrateServerStub::GetPakMigrationTaskStatus(MessageParcel& data, MessageParcel& reply)
{
    Name bundle;
    if (!ReadFields(data, bundle)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    ReserveMigrationStatus status;
    const BusinessError error = engine_->GetPackageStatus(bundle.text, status);
    return WriteReply(reply, status, error);
}

int32_t MigrateServerStub::GetMigrationDataSize(MessageParcel& /*data*/, MessageParcel& reply)
{
    int64_t bytes = 0;
    const BusinessError error = engine_->GetDataSize(bytes);
    return WriteReply(reply, bytes, error);
}

int32_t MigrateServerStub::SetBackupFileOwn(MessageParcel& data, MessageParcel& /*reply*/)
{
    const auto owner = iface_cast<ISetBackupFileOwnInterface>(data.ReadRemoteObject());
    if (owner == nullptr) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const uid_t uid = IPCSkeleton::GetCallingUid();
    const bool isQueued =
        jobs_.Post([engine = engine_, owner, uid] { owner->OnSetBackupFileOwnFinished(engine->OwnBackups(uid)); });
    return isQueued ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
}

}  // namespace VEXA::UpdateEngine
