// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "native_migrate/export.h"
#include "vexa/base/mutex.h"
#include "vexa/samgr/system_ability_load_callback_stub.h"

namespace VEXA::UpdateEngine {

// Starts system services on demand: turns the manager's asynchronous load into one call that tells whether the service
// is running. Its remote object is then to be had from the manager.
//
// All operations may be called from any thread. There is one outcome for the whole object: of two loads at the same
// time, each may see the other's.
class NATIVE_MIGRATE_EXPORT LoadSaService : public SystemAbilityLoadCallbackStub {
public:
    // The process's loader, made on first use; never null.
    static sptr<LoadSaService> GetInstance();

    // Starts the service of that number unless it is running. True when it is running. False when the manager can't be
    // reached or refuses the load, at once; when the load fails, within 50 ms of the manager's word; and when nothing
    // is heard for 5 seconds. The reason is in the log. Blocks for that time, at least 50 ms for an accepted load; a
    // manager that hangs adds 1 second to reach it and 5 for its answer.
    bool TryLoadSa(int32_t systemAbilityId);

    // The steps of which TryLoadSa is made; callers have no need of them.

    // Forgets the outcome of an earlier load.
    void InitStatus();
    // As TryLoadSa, but an earlier outcome counts as this load's.
    bool LoadSa(int32_t systemAbilityId);
    // Waits for an outcome, for 5 seconds, looking every 50 ms, for the first time after 50 ms. True when the service
    // was loaded.
    bool CheckSaLoaded();

    // Called by the manager, on a thread of the IPC pool.
    void OnLoadSystemAbilitySuccess(int32_t systemAbilityId, const sptr<IRemoteObject>& remoteObject) override;
    void OnLoadSystemAbilityFail(int32_t systemAbilityId) override;

protected:
    LoadSaService();
    ~LoadSaService() override;

    // One wait between two looks at the outcome: 50 ms.
    virtual void Pause();

private:
    friend class LoadSaServiceRelease;
    static void ReleaseInstance();

    std::atomic<int32_t> loadStatus_;

    // One counted reference, dropped with the library's static objects. A plain pointer, so that a thread that asks for
    // the instance even later finds null and not a destroyed reference.
    static LoadSaService* instance_ VEXA_GUARDED_BY(instanceLock_);
    static Mutex instanceLock_;
};

}  // namespace VEXA::UpdateEngine
