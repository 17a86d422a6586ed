// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "common_death_recipient.h"
#include "log_line.h"
#include "native_migrate/imigrate_server.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// A client's way to the migration service: finds it, remembers its proxy and watches for its death. All operations may
// be called from any thread. The lines that they log are the client's: it passes the place that they name.
class MigrateServiceConnection {
public:
    // `watchLine` tells whether the platform has taken on the watch. `onDeath` runs on a notification thread; it may
    // outlive this object, and has to reset the connection itself.
    MigrateServiceConnection(LogFormat<const char*> watchLine, CommonDeathRecipient::DeathCallback onDeath);
    ~MigrateServiceConnection();
    MigrateServiceConnection(const MigrateServiceConnection&) = delete;
    MigrateServiceConnection& operator=(const MigrateServiceConnection&) = delete;

    // The service's proxy; without one, looks the service up, and starts it if need be. Null when it can't be reached.
    // Blocks for the manager, at most 1 second to reach it, 8 for its answer if it hangs, and 5 for the start; others
    // that need the service wait for the same lookup.
    sptr<IMigrateServer> GetService(const LogSite& site) VEXA_EXCLUDES(serviceMutex_);

    // Watches the object, unless it is null or there is a watch already. A watch that the platform refused counts as
    // one until the connection is reset.
    void AddDeathRecipient(const LogSite& site, const sptr<IRemoteObject>& object) VEXA_EXCLUDES(serviceMutex_);

    // Forgets proxy and watch: the next GetService looks the service up again. The watch is not withdrawn.
    void Reset() VEXA_EXCLUDES(serviceMutex_);
    // Forgets both, and withdraws the watch where there is a proxy to withdraw it from.
    void Disconnect() VEXA_EXCLUDES(serviceMutex_);

private:
    struct Link {
        sptr<IMigrateServer> server;
        sptr<IRemoteObject::DeathRecipient> recipient;
    };

    // Empties the connection. The references go when the result does, which is outside the lock.
    Link Take() VEXA_EXCLUDES(serviceMutex_);
    void Watch(const LogSite& site, const sptr<IRemoteObject>& object) VEXA_REQUIRES(serviceMutex_);

    Mutex serviceMutex_{LockRank::KitsService};  // held for a whole lookup, so that concurrent first requests share one
    sptr<IMigrateServer> migrateServer_ VEXA_GUARDED_BY(serviceMutex_);
    sptr<IRemoteObject::DeathRecipient> deathRecipient_ VEXA_GUARDED_BY(serviceMutex_);
    const LogFormat<const char*> watchLine_;
    const CommonDeathRecipient::DeathCallback onDeath_;
};

}  // namespace VEXA::UpdateEngine
