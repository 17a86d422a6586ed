// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "migrate_request.h"
#include "migrate_service_connection.h"
#include "native_migrate/imigrate_callback.h"
#include "native_migrate/migrate_server_kits.h"
#include "registration_overlap.h"

namespace VEXA::UpdateEngine {

// The parts that the operations of the migration client share. The operations are those of the class that Make returns.
class MigrateServerKitsImpl : public MigrateServerKits {
public:
    MigrateServerKitsImpl();
    static std::unique_ptr<MigrateServerKitsImpl> Make();

    int32_t On(const ProgressCallback& callback) override;
    int32_t Off() override;

    // As MigrateServiceConnection's.
    sptr<IMigrateServer> GetService();
    void AddDeathRecipient(const sptr<IRemoteObject>& object);
    // Registers the stored progress callback with the service, one attempt; nothing to do without one.
    void ResumeRegisterCallback();
    // Forces a new lookup on the next request.
    void DoReset();

protected:
    // One request by the pattern of all. `name` stands in the line of a failed one; null: no such line.
    template <typename Fill, typename Take>
    int32_t Call(const LogSite& site, MigrateRequestCode code, const char* name, const Fill& fill, const Take& take);

private:
    void OnServiceDied();
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
