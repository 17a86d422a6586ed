// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/export.h"
#include "native_migrate/imigrate_server.h"
#include "native_migrate/ireserve_migrate_status_observer.h"
#include "vexa/base/refbase.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::UpdateEngine {

class ReserveMigrateSession;

// A client of the migration service's functions for reserved applications. Each object has a connection and observers
// of its own; its maker owns it.
//
// Every operation is one synchronous request. All of them may be called from any thread, also at the same time on one
// object, and none is repeated on failure. Texts and numbers go to the service unchanged and unchecked, and `reply`
// receives the service's text, unparsed.
//
// Results of every operation:
//     0      success; `reply` is replaced, also by an empty text
//     104    the service can't be reached or started in time, or the request can't be begun, sent or answered in time:
//            one that was sent may have been carried out
//     other  what the service answered
// The service's results, and the numbers in its texts, stand in "native_migrate/migrate_results.h". What is said here
// of the meaning of arguments is what the reference service makes of them. A request has room for 16 MiB: a text that
// does not fit is left out, and the service answers what it makes of the others. `reply` is left as it was unless the
// result is 0.
//
// Blocking: an operation waits at most 8 seconds for the answer. When the service is not known yet, or has died, it
// first reaches the manager, within 1 second, asks it for the service, which takes no time unless the manager hangs and
// then at most 8 seconds, and starts the service, for at most 5. Operations of the same object that meanwhile need the
// service wait for that lookup and share what it has found; when it has failed, they look in turn, one after the other.
// A connection that has to be made may add a second, one that is lost half a second.
class NATIVE_MIGRATE_EXPORT ReserveMigrateKits {
public:
    // Contacts nobody.
    ReserveMigrateKits();

    // Ends the watch over the service and drops the observers, which stay registered with the service. When the object
    // is registering its observers again on a notification thread, waits for the step under way there: at most a
    // lookup, a start and one request. After that nothing reaches the object any more. No other operation of the object
    // may run meanwhile. May itself be called from within that re-registration, which then ends.
    virtual ~ReserveMigrateKits();

    ReserveMigrateKits(const ReserveMigrateKits&) = delete;
    ReserveMigrateKits& operator=(const ReserveMigrateKits&) = delete;

    // The applications that are set aside, as a JSON list of RestoreAppInfo. `text`: the name of one, or empty for all;
    // `number`: how many at most, negative for all.
    int32_t GetRestoreAppInfos(const std::string& text, int32_t number, std::string& reply);

    // Restores an application; returns when that has begun. `first`: its name; `second`: the scene that it is restored
    // for, or empty. The reply is a BusinessError as JSON, here and where nothing else is said.
    int32_t RestoreApp(const std::string& first, const std::string& second, std::string& reply);

    // How restorations stand, as a JSON list of RestoreEventInfo. `first`: an application's name, `second`: a scene;
    // each may be empty for all.
    int32_t GetRestoreAppStatus(const std::string& first, const std::string& second, std::string& reply);

    // Takes away what was restored of an application. `first`: its name; `second`: a scene, which it has to have unless
    // empty.
    int32_t ClearApp(const std::string& first, const std::string& second, std::string& reply);

    // Takes away everything that was restored. `text`: only what has this scene, unless empty.
    int32_t ClearAllVirtualData(const std::string& text, std::string& reply);

    // Changes an application's place in the order of restoration. `first`: its name; `second`: a decimal number; higher
    // goes first.
    int32_t AdjustAppPriority(const std::string& first, const std::string& second, std::string& reply);

    // Registers `observer` for status events under the name `caller`, in place of the one registered under it before.
    // The object holds it until UnRegisterCallback or its own end, and registers it with every next instance of the
    // service after a death. Once the request was written, it stays held whatever the service answers. 104, and nothing
    // sent, for a null observer. Waits as well while observers are being registered again after a death: at most a
    // request for each.
    int32_t RegisterCallback(
        const std::string& caller, const sptr<IReserveMigrateStatusObserver>& observer, std::string& reply);

    // Withdraws the observer of `caller`; the request is sent also when there is none. Once it was written, the
    // observer is dropped whatever the service answers; when the service can't be reached, it stays. Waits as
    // RegisterCallback does. An event that is under way may still arrive.
    int32_t UnRegisterCallback(const std::string& caller, std::string& reply);

    // The steps of which the operations are made; callers have no need of them.

    // The proxy of the service, looked up unless known, with the blocking that an operation has for it; null when it
    // can't be reached.
    sptr<IMigrateServer> GetService();
    // Watches the service's object for its death; nothing to do when it is null or a watch is there.
    void AddDeathRecipient(const sptr<IRemoteObject>& object);
    // Registers all observers with the service, in the byte order of their callers' names, one attempt each.
    void ResumeRegisterCallback();
    // Forgets the service: the next operation looks it up. The observers stay.
    void DoReset();

private:
    const sptr<ReserveMigrateSession> session_;
};

}  // namespace VEXA::UpdateEngine
