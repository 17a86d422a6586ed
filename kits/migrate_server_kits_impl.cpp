// SPDX-License-Identifier: Apache-2.0
#include "migrate_server_kits_impl.h"

#include <utility>

#include "native_migrate/migrate_callback_stub.h"
#include "vexa/base/delayed_ref_singleton.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr MigrateRequest::RefusalLines kRefusalLines{
    KOLOG_ERROR, KITS_LINE("Service is null"), KITS_LINE("MigrateServerKitsImpl WriteInterfaceToken fail")};

}  // namespace

// The process's instance lives for ever, so the death handler may hold it by a plain pointer.
MigrateServerKitsImpl::MigrateServerKitsImpl()
    : connection_(KITS_LINE("MigrateServerKitsImpl::AddDeathRecipient ret=%{public}s"),
          [this](const wptr<IRemoteObject>&) { OnServiceDied(); })
{}

template <typename Fill, typename Take>
int32_t MigrateServerKitsImpl::Call(
    const LogSite& site, MigrateRequestCode code, const char* name, const Fill& fill, const Take& take)
{
    MigrateRequest request(GetService());
    return ExchangeRequest(request, site, kRefusalLines, code, fill, take, [&](int32_t result) {
        if (name != nullptr) {
            KITS_LOG_AT(site, KOLOG_ERROR, "%{public}s result is %{public}d", name, result);
        }
    });
}

namespace {

// The operations that consist of one request.
class MigrateServerOperations final : public MigrateServerKitsImpl,
                                      public DelayedRefSingleton<MigrateServerOperations> {
public:
    int32_t GetMigrateStatus(const MigrateStage& stage, MigrateStatus& status, BusinessError& error) override
    {
        KITS_LOGI("GetMigrateStatus start");
        return Call(LOG_SITE(), MigrateRequestCode::GET_MIGRATE_STATUS, "MigrateServerKitsImpl::GetMigrateStatus",
            Args(stage), Replies(status, error));
    }

    int32_t StartMigrate(BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::startMigrate start");
        return Call(LOG_SITE(), MigrateRequestCode::START_MIGRATE, "MigrateServerKitsImpl::StartMigrate", Args(),
            Replies(error));
    }

    int32_t StartPakMigrate(const std::string& request, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::startPakMigrate");
        return Call(LOG_SITE(), MigrateRequestCode::START_PAK_MIGRATE, "MigrateServerKitsImpl::StartPakMigrate",
            Args(request), Replies(error));
    }

    int32_t RemoveMigrate(int32_t request, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::RemoveMigrate start");
        return Call(LOG_SITE(), MigrateRequestCode::REMOVE_MIGRATE, "MigrateServerKitsImpl::RemoveMigrate",
            Args(request), Replies(error));
    }

    int32_t RemovePakMigrate(const std::string& request, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::RemovePakMigrate start");
        return Call(LOG_SITE(), MigrateRequestCode::REMOVE_PAK_MIGRATE, "MigrateServerKitsImpl::RemovePakMigrate",
            Args(request), Replies(error));
    }

    int32_t GetMigrateInfo(const MigrateStage& stage, MigrateInfo& info, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::getMigrateInfo start");
        return Call(LOG_SITE(), MigrateRequestCode::GET_MIGRATE_INFO, "MigrateServerKitsImpl::getMigrateInfo",
            Args(stage), Replies(info, error));
    }

    int32_t GetPakMigrateInfo(std::vector<PakMigrateInfo>& infos, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::getPakMigrateInfo start");
        return Call(LOG_SITE(), MigrateRequestCode::GET_PAK_MIGRATE_INFO, "MigrateServerKitsImpl::getPakMigrateInfo",
            Args(), Replies(infos, error));
    }

    int32_t GetApkInfo(std::vector<std::string>& infos, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::GetApkInfo start");
        return Call(LOG_SITE(), MigrateRequestCode::GET_APK_INFO, "MigrateServerKitsImpl::GetApkInfo", Args(),
            Replies(infos, error));
    }

    int32_t SetMigratePolicy(const MigratePolicy& policy, BusinessError& error) override
    {
        KITS_LOGI("SetMigratePolicy");
        return Call(LOG_SITE(), MigrateRequestCode::SET_MIGRATE_POLICY, "SetMigratePolicy", Args(policy.policy),
            Replies(error));
    }

    int32_t CheckAppRestore(const std::string& bundleName, std::string& result, BusinessError& error) override
    {
        KITS_LOGI("CheckAppRestore, bundleName %{public}s", bundleName.c_str());
        return Call(LOG_SITE(), MigrateRequestCode::CHECK_APP_RESTORE, "CheckAppRestore", Args(bundleName),
            Replies(result, error));
    }

    int32_t PresetData(const std::string& data, BusinessError& error) override
    {
        KITS_LOGI("PresetData");
        return Call(LOG_SITE(), MigrateRequestCode::PRESET_DATA, "PresetData", Args(data), Replies(error));
    }

    int32_t GetMigrateResult(std::string& result, BusinessError& error) override
    {
        KITS_LOGI("GetMigrateResult");
        return Call(
            LOG_SITE(), MigrateRequestCode::GET_MIGRATE_RESULT, "GetMigrateResult", Args(), Replies(result, error));
    }

    int32_t GetMigrationUsers(std::vector<MigrationUser>& users, BusinessError& error) override
    {
        KITS_LOGI("GetMigrationUsers");
        return Call(
            LOG_SITE(), MigrateRequestCode::GET_MIGRATION_USERS, "GetMigrationUsers", Args(), Replies(users, error));
    }

    int32_t GetModuleMigrationPolicy(const bool& flag, const std::vector<ModuleInfo>& modules,
        std::vector<ModuleMigrationPolicy>& policies, BusinessError& error) override
    {
        KITS_LOGI("GetModuleMigrationPolicy");
        const auto fill = [&](MigrateRequest& request) {
            std::string moduleText;
            if (!JsonFromStruct().TraverseData(moduleText, modules)) {
                moduleText.clear();
            }
            request.Write(flag, moduleText);
        };
        return Call(LOG_SITE(), MigrateRequestCode::GET_MODULE_MIGRATION_POLICY, "GetModuleMigrationPolicy", fill,
            Replies(policies, error));
    }

    int32_t ResumeMigration(BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::resumeMigration start");
        return Call(LOG_SITE(), MigrateRequestCode::RESUME_MIGRATION, "MigrateServerKitsImpl::ResumeMigration", Args(),
            Replies(error));
    }

    int32_t StartPakMigration(const std::string& packageName, const std::string& bundleName,
        const std::string& parameters, BusinessError& error) override
    {
        KITS_LOGI("StartPakMigration, packageName:%{public}s, bundleName:%{public}s", packageName.c_str(),
            bundleName.c_str());
        return Call(LOG_SITE(), MigrateRequestCode::START_PAK_MIGRATION, "MigrateServerKitsImpl::START_PAK_MIGRATION",
            Args(packageName, bundleName, parameters), Replies(error));
    }

    int32_t NotifyEmporionCoreEvent(const AAFwk::Want& want, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::notifyEmporionCoreEvent start");
        return Call(LOG_SITE(), MigrateRequestCode::NOTIFY_EMPORION_CORE_EVENT,
            "MigrateServerKitsImpl::NotifyEmporionCoreEvent", Args(want), Replies(error));
    }

    int32_t GetPakMigrationTaskStatus(
        const std::string& bundleName, ReserveMigrationStatus& status, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::GetPakMigrationTaskStatus start, bundleName:%{public}s", bundleName.c_str());
        return Call(LOG_SITE(), MigrateRequestCode::GET_PAK_MIGRATION_TASK_STATUS,
            "MigrateServerKitsImpl::GetPakMigrationTaskStatus", Args(bundleName), Replies(status, error));
    }

    int32_t GetMigrationDataSize(int64_t& size, BusinessError& error) override
    {
        KITS_LOGI("MigrateServerKitsImpl::GetMigrationDataSize");
        return Call(LOG_SITE(), MigrateRequestCode::GET_MIGRATION_DATA_SIZE,
            "MigrateServerKitsImpl::GetMigrationDataSize", Args(), Replies(size, error));
    }

    int32_t SetBackupFileOwn(const sptr<ISetBackupFileOwnInterface>& callback) override
    {
        KITS_LOGI("MigrateServerKitsImpl::SetBackupFileOwn");
        if (callback == nullptr) {
            KITS_LOGE("SetBackupFileOwn callback is null");
            return MIGRATE_UNREACHABLE;
        }
        return Call(
            LOG_SITE(), MigrateRequestCode::SET_BACKUP_FILE_OWN, nullptr,
            [&](MigrateRequest& request) { request.Write(callback->AsObject()); }, Replies());
    }
};

}  // namespace

MigrateServerKits& MigrateServerKits::GetKitsInstance()
{
    return MigrateServerOperations::GetInstance();
}

std::unique_ptr<MigrateServerKitsImpl> MigrateServerKitsImpl::Make()
{
    return std::make_unique<MigrateServerOperations>();
}

int32_t MigrateServerKitsImpl::On(const ProgressCallback& callback)
{
    KITS_LOGI("RegisterProgressCallBack Start");
    sptr<IMigrateCallBack> stub;
    bool isServiceDead = false;
    registrations_.Begin(RegistrationOverlap::By::CALLER);
    const int32_t result = Call(
        LOG_SITE(), MigrateRequestCode::REGISTER_PROGRESS_CALLBACK, "RegisterProgressCallBack",
        [&](MigrateRequest& request) {
            stub = sptr<IMigrateCallBack>(new MigrateCallBackStub(callback));
            request.Write(stub->AsObject());
        },
        [&](const MigrateRequest& request) {
            StoreCallback(stub);
            isServiceDead = request.IsServiceDead();
        });
    if (registrations_.End()) {
        SettleCallback();
    } else if (isServiceDead) {
        // The service may have died before the callback was stored. The death handler then found none to register
        // again.
        ResumeRegisterCallback();
    }
    return result;
}

int32_t MigrateServerKitsImpl::Off()
{
    KITS_LOGI("UnRegisterAllProgressCallBack");
    registrations_.Begin(RegistrationOverlap::By::CALLER);
    MigrateRequest request(GetService());
    const int32_t result = ExchangeRequest(
        request, LOG_SITE(), kRefusalLines, MigrateRequestCode::UNREGISTER_PROGRESS_CALLBACK, Args(),
        [&](const MigrateRequest&) { StoreCallback(nullptr); },
        [&](int32_t failure) {
            StoreCallback(nullptr);
            KITS_LOGE("%{public}s result is %{public}d", "UnRegisterProgressCallBack", failure);
        });
    if (registrations_.End()) {
        SettleCallback();
    }
    return result;
}

sptr<IMigrateServer> MigrateServerKitsImpl::GetService()
{
    return connection_.GetService(LOG_SITE());
}

void MigrateServerKitsImpl::AddDeathRecipient(const sptr<IRemoteObject>& object)
{
    connection_.AddDeathRecipient(LOG_SITE(), object);
}

void MigrateServerKitsImpl::DoReset()
{
    connection_.Reset();
}

void MigrateServerKitsImpl::OnServiceDied()
{
    KITS_LOGI("migrate_server is dead");
    connection_.Reset();
    ResumeRegisterCallback();
}

void MigrateServerKitsImpl::ResumeRegisterCallback()
{
    if (StoredCallback() == nullptr) {
        KITS_LOGI("progressCallback is null, ignore ResumeRegisterCallback");
        return;
    }
    SettleCallback();
}

void MigrateServerKitsImpl::RegisterAgain(const sptr<IMigrateCallBack>& callback)
{
    const sptr<IMigrateServer> service = GetService();
    if (service == nullptr) {
        KITS_LOGE("service is null");
        return;
    }
    KITS_LOGI("ResumeRegisterCallback");
    MigrateRequest request(service);
    if (!request.WriteToken()) {
        return;
    }
    request.Write(callback->AsObject());
    const int32_t result = request.Send(MigrateRequestCode::REGISTER_PROGRESS_CALLBACK);
    KITS_LOGI("MigrateServerKitsImpl::ResumeRegisterCallback result=%{public}d", result);
}

void MigrateServerKitsImpl::SettleCallback()
{
    do {
        registrations_.Begin(RegistrationOverlap::By::RECOVERY);
        if (const sptr<IMigrateCallBack> callback = StoredCallback()) {
            RegisterAgain(callback);
        } else {
            Call(LOG_SITE(), MigrateRequestCode::UNREGISTER_PROGRESS_CALLBACK, "UnRegisterProgressCallBack", Args(),
                Replies());
        }
    } while (registrations_.End());
}

sptr<IMigrateCallBack> MigrateServerKitsImpl::StoredCallback()
{
    MutexLock lock(callbackMutex_);
    return progressCallback_;
}

void MigrateServerKitsImpl::StoreCallback(sptr<IMigrateCallBack> callback)
{
    MutexLock lock(callbackMutex_);
    progressCallback_.Swap(callback);
}

}  // namespace VEXA::UpdateEngine
