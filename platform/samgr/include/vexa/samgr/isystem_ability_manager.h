// SPDX-License-Identifier: Apache-2.0
// The system-ability manager: finds system services by number and starts them on demand.
#pragma once

#include <cstdint>
#include <string>

#include "vexa/ipc/iremote_broker.h"
#include "vexa/samgr/isystem_ability_load_callback.h"

namespace VEXA {

// Results of the manager's operations that return int32; 0 is success, negative values are IpcErrors.
enum SamgrError : int32_t {
    SAMGR_OK = 0,
    SAMGR_NOT_ALLOWED = 1,         // the profile does not let this caller do that
    SAMGR_NO_PROFILE = 2,          // no profile names the identifier
    SAMGR_ALREADY_REGISTERED = 3,  // a living process serves the identifier
    SAMGR_PROGRAM_MISSING = 4,     // the profile's program can't be started
    SAMGR_PROGRAM_EXITED = 5,      // it ended before it registered
    SAMGR_PROGRAM_SLOW = 6,        // it did not register in time
    SAMGR_BAD_REQUEST = 7,
    SAMGR_BUSY = 8,  // too many loads wait for it, or the manager is stopping; try again later
};

// Every operation is a request that the manager answers at once; one that hangs is waited for, at most
// kManagerWaitSeconds (docs/manager.md). The synchronous load waits for its own time-out instead. All may be called
// from any thread.
class VEXA_EXPORT ISystemAbilityManager : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"VEXA.ISystemAbilityManager")

    // The service's remote object if the service is running, else null. Never starts anything.
    virtual sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) = 0;

    // Starts the service if it is not running and waits for it, at most `timeout` seconds (at least 1). Null on failure
    // or time-out; the reason is in the log, and in `reason` when that is not null.
    virtual sptr<IRemoteObject> LoadSystemAbility(
        int32_t systemAbilityId, int32_t timeout, std::string* reason = nullptr) = 0;

    // Asks for the service and returns at once. SAMGR_OK: accepted, and exactly one of the callback's two outcomes
    // follows on an IPC thread, the failure also when the manager dies. Anything else: refused, no callback follows.
    virtual int32_t LoadSystemAbility(int32_t systemAbilityId, const sptr<ISystemAbilityLoadCallback>& callback) = 0;

    // Makes an object of this process the service of that number, until RemoveSystemAbility or the end of the process:
    // when the manager is replaced, the process adds its objects to the new one by itself.
    virtual int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& object) = 0;
    // SAMGR_NOT_ALLOWED also when this process has not added that service, or its object has died.
    virtual int32_t RemoveSystemAbility(int32_t systemAbilityId) = 0;

    // The services that the caller may look up, as JSON for people and scripts, which may gain keys: a list of objects
    // with "id", "program", "state", "pid", "user", "starts", "failures" and "lastFailure" (docs/manager.md).
    virtual int32_t ListSystemAbilities(std::string& services) = 0;
};

}  // namespace VEXA
