// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "migrate_request.h"
#include "migrate_service_connection.h"
#include "native_migrate/imigrate_callback.h"
#include "native_migrate/migrate_server_kits.h"
#include "registration_overlap.h"
#include "vexa/base/delayed_ref_singleton.h"

namespace VEXA::UpdateEngine {

class MigrateServerKitsImpl : public MigrateServerKits, public DelayedRefSingleton<MigrateServerKitsImpl> {
public:
    MigrateServerKitsImpl();
    ~MigrateServerKitsImpl() override = default;

    int32_t GetMigrateStatus(const MigrateStage& stage, MigrateStatus& status, BusinessError& error) override;
    int32_t StartMigrate(BusinessError& error) override;
    int32_t StartPakMigrate(const std::string& request, BusinessError& error) override;
    int32_t RemoveMigrate(int32_t request, BusinessError& error) override;
    int32_t RemovePakMigrate(const std::string& request, BusinessError& error) override;
    int32_t GetMigrateInfo(const MigrateStage& stage, MigrateInfo& info, BusinessError& error) override;
    int32_t GetPakMigrateInfo(std::vector<PakMigrateInfo>& infos, BusinessError& error) override;
    int32_t GetApkInfo(std::vector<std::string>& infos, BusinessError& error) override;
    int32_t On(const ProgressCallback& callback) override;
    int32_t Off() override;
    int32_t SetMigratePolicy(const MigratePolicy& policy, BusinessError& error) override;
    int32_t CheckAppRestore(const std::string& bundleName, std::string& result, BusinessError& error) override;
    int32_t PresetData(const std::string& data, BusinessError& error) override;
    int32_t GetMigrateResult(std::string& result, BusinessError& error) override;
    int32_t GetMigrationUsers(std::vector<MigrationUser>& users, BusinessError& error) override;
    int32_t GetModuleMigrationPolicy(const bool& flag, const std::vector<ModuleInfo>& modules,
        std::vector<ModuleMigrationPolicy>& policies, BusinessError& error) override;
    int32_t ResumeMigration(BusinessError& error) override;
    int32_t StartPakMigration(const std::string& packageName, const std::string& bundleName,
        const std::string& parameters, BusinessError& error) override;
    int32_t NotifyEmporionCoreEvent(const AAFwk::Want& want, BusinessError& error) override;
    int32_t GetPakMigrationTaskStatus(
        const std::string& bundleName, ReserveMigrationStatus& status, BusinessError& error) override;
    int32_t GetMigrationDataSize(int64_t& size, BusinessError& error) override;
    int32_t SetBackupFileOwn(const sptr<ISetBackupFileOwnInterface>& callback) override;

    // As MigrateServiceConnection's.
    sptr<IMigrateServer> GetService();
    void AddDeathRecipient(const sptr<IRemoteObject>& object);
    // Registers the stored progress callback with the service, one attempt; nothing to do without one.
    void ResumeRegisterCallback();
    // Forces a new lookup on the next request.
    void DoReset();

private:
    void OnServiceDied();
    // One request by the pattern of all. `name` stands in the line of a failed one; null: no such line.
    template <typename Fill, typename Take>
    int32_t Call(const LogSite& site, MigrateRequestCode code, const char* name, const Fill& fill, const Take& take);

    void RegisterAgain(const sptr<IMigrateCallBack>& callback);
    // Tells the service which callback is in force, again as long as a call of On or Off overlapped with that.
    void SettleCallback();
    sptr<IMigrateCallBack> StoredCallback();
    void StoreCallback(sptr<IMigrateCallBack> callback);

    RegistrationOverlap registrations_;
    sptr<IMigrateCallBack> progressCallback_ VEXA_GUARDED_BY(callbackMutex_);
    Mutex callbackMutex_{
        LockRank::KitsCallback};  // never held across a request, or while the reference to a callback is dropped
    // The last member: it withdraws the watch over the service before the callback goes.
    MigrateServiceConnection connection_;
};

}  // namespace VEXA::UpdateEngine
