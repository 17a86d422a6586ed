// SPDX-License-Identifier: Apache-2.0
#include "migrate_server_stub.h"

#include <utility>

#include "native_migrate/set_backup_file_own_proxy.h"
#include "service_limits.h"
#include "service_log.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

using Code = MigrateRequestCode;

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
{
    AddQueries();
    AddCommands();
    AddCallbacks();
    AddReserveRequests();
}

MigrateServerStub::~MigrateServerStub() = default;

int32_t MigrateServerStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        SA_LOGE("a request with another interface's token, from process %{public}d", IPCSkeleton::GetCallingPid());
        return MIGRATE_UNREACHABLE;
    }
    const auto handler = handlers_.find(static_cast<Code>(code));
    if (handler == handlers_.end()) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    const int32_t result = handler->second(data, reply);
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

template <typename Found>
void MigrateServerStub::OnQuery(Code code, BusinessError (MigrationEngine::*query)(Found&) const)
{
    On<>(code, [this, query](MessageParcel& reply) {
        Found found{};
        const BusinessError error = (*engine_.*query)(found);
        return WriteReply(reply, found, error);
    });
}

void MigrateServerStub::AddQueries()
{
    On<MigrateStage>(Code::GET_MIGRATE_STATUS, [this](MessageParcel& reply, MigrateStage stage) {
        return WriteReply(reply, engine_->GetStatus(stage), BusinessError());
    });
    On<MigrateStage>(Code::GET_MIGRATE_INFO, [this](MessageParcel& reply, MigrateStage stage) {
        return WriteReply(reply, engine_->GetInfo(stage), BusinessError());
    });
    On<>(Code::GET_MIGRATE_RESULT,
        [this](MessageParcel& reply) { return WriteReply(reply, engine_->GetResult(), BusinessError()); });
    OnQuery(Code::GET_PAK_MIGRATE_INFO, &MigrationEngine::GetPackages);
    OnQuery(Code::GET_APK_INFO, &MigrationEngine::GetBundleNames);
    OnQuery(Code::GET_MIGRATION_USERS, &MigrationEngine::GetUsers);
    OnQuery(Code::GET_MIGRATION_DATA_SIZE, &MigrationEngine::GetDataSize);
    On<bool, JsonText<std::vector<ModuleInfo>>>(
        Code::GET_MODULE_MIGRATION_POLICY, [this](MessageParcel& reply, bool isOnlyPlaced, const auto& modules) {
            std::vector<ModuleMigrationPolicy> policies;
            const BusinessError error = engine_->GetModulePolicies(isOnlyPlaced, modules.value, policies);
            return WriteReply(reply, policies, error);
        });
    On<Name>(Code::GET_PAK_MIGRATION_TASK_STATUS, [this](MessageParcel& reply, const Name& bundle) {
        ReserveMigrationStatus status;
        const BusinessError error = engine_->GetPackageStatus(bundle.text, status);
        return WriteReply(reply, status, error);
    });
    On<Name>(Code::CHECK_APP_RESTORE, [this](MessageParcel& reply, const Name& bundle) {
        return WriteReply(reply, engine_->CheckRestore(bundle.text), BusinessError());
    });
}

void MigrateServerStub::AddCommands()
{
    On<>(Code::START_MIGRATE, [this](MessageParcel& reply) { return WriteReply(reply, engine_->StartAll()); });
    On<>(Code::RESUME_MIGRATION, [this](MessageParcel& reply) { return WriteReply(reply, engine_->Resume()); });
    On<Name>(Code::START_PAK_MIGRATE, [this](MessageParcel& reply, const Name& package) {
        return WriteReply(reply, engine_->StartPackage(package.text, "", 0));
    });
    On<Name, std::string, JsonText<PakMigrationParameters>>(Code::START_PAK_MIGRATION,
        [this](MessageParcel& reply, const Name& package, const std::string& bundle, const auto& parameters) {
            return WriteReply(reply, engine_->StartPackage(package.text, bundle, parameters.value.priority));
        });
    On<int32_t>(Code::REMOVE_MIGRATE, [this](MessageParcel& reply, int32_t user) {
        return user >= MIGRATE_ALL_USERS ? WriteReply(reply, engine_->RemoveUser(user)) : MIGRATE_BAD_ARGUMENT;
    });
    On<Name>(Code::REMOVE_PAK_MIGRATE, [this](MessageParcel& reply, const Name& package) {
        return WriteReply(reply, engine_->RemovePackage(package.text));
    });
    On<int32_t>(Code::SET_MIGRATE_POLICY, [this](MessageParcel& reply, int32_t policy) {
        const bool isKnown = policy == MIGRATE_POLICY_GO_ON || policy == MIGRATE_POLICY_STOP;
        return isKnown ? WriteReply(reply, engine_->SetPolicy(policy)) : MIGRATE_BAD_ARGUMENT;
    });
    On<std::string>(Code::PRESET_DATA, [this](MessageParcel& reply, const std::string& text) {
        BusinessError error;
        return engine_->SetPreset(text, error) ? WriteReply(reply, error) : MIGRATE_BAD_ARGUMENT;
    });
    On<std::unique_ptr<AAFwk::Want>>(Code::NOTIFY_EMPORION_CORE_EVENT, [this](MessageParcel& reply, const auto& want) {
        const std::string& action = want->GetAction();
        BusinessError error = MakeError(MIGRATE_ERROR_EVENT, "the service knows no such event");
        if (action == MIGRATE_EVENT_PAUSE) {
            const auto reason = want->template GetParam<int32_t>("reason", static_cast<int32_t>(TaskPauseReason::USER));
            error = engine_->Pause(static_cast<TaskPauseReason>(reason));
        } else if (action == MIGRATE_EVENT_RESUME) {
            error = engine_->Resume();
        } else if (action == MIGRATE_EVENT_STOP) {
            error = engine_->RemoveUser(MIGRATE_ALL_USERS);
        }
        return WriteReply(reply, error);
    });
}

void MigrateServerStub::AddCallbacks()
{
    On<sptr<IRemoteObject>>(Code::REGISTER_PROGRESS_CALLBACK, [this](MessageParcel&, const auto& object) {
        const bool isAdded = hub_->AddProgress(
            IPCSkeleton::GetCallingPid(), object, [this](const auto& receive) { engine_->IntroduceTasks(receive); });
        return isAdded ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
    });
    On<>(Code::UNREGISTER_PROGRESS_CALLBACK, [this](MessageParcel&) {
        hub_->RemoveProgress(IPCSkeleton::GetCallingPid());
        return MIGRATE_SUCCESS;
    });
    On<sptr<IRemoteObject>>(Code::SET_BACKUP_FILE_OWN, [this](MessageParcel&, const auto& object) {
        const auto owner = iface_cast<ISetBackupFileOwnInterface>(object);
        if (owner == nullptr) {
            return MIGRATE_BAD_ARGUMENT;
        }
        const uid_t uid = IPCSkeleton::GetCallingUid();
        const bool isQueued =
            jobs_.Post([engine = engine_, owner, uid] { owner->OnSetBackupFileOwnFinished(engine->OwnBackups(uid)); });
        return isQueued ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
    });
}

}  // namespace VEXA::UpdateEngine
