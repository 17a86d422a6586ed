// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

#include "handler_gate.h"
#include "migrate_service_connection.h"
#include "native_migrate/ireserve_migrate_status_observer.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// The state of one ReserveMigrateKits. The death handler reaches it by a weak reference and holds it while it runs, so
// that the kits object may go at any time, even inside the handler.
class ReserveMigrateSession : public RefBase {
public:
    ReserveMigrateSession();

    MigrateServiceConnection& Connection() { return connection_; }

    // Keeps the observer under the caller's name, in place of another; Forget drops it. Both wait for a walk of
    // ResumeRegisterCallback that is under way.
    void Keep(const std::string& caller, sptr<IReserveMigrateStatusObserver> observer) VEXA_EXCLUDES(observersMutex_);
    void Forget(const std::string& caller) VEXA_EXCLUDES(observersMutex_);

    sptr<IMigrateServer> GetService();
    void ResumeRegisterCallback() VEXA_EXCLUDES(observersMutex_);
    // From now on no death handler starts, and none runs, except on the calling thread itself. That one ends with its
    // present step, and the connection and the observers go then instead of at once.
    void Close() VEXA_EXCLUDES(observersMutex_);

private:
    using Observers = std::map<std::string, sptr<IReserveMigrateStatusObserver>>;

    void OnServiceDied();
    bool HasObservers() VEXA_EXCLUDES(observersMutex_);
    // One register request; false when it could not be written.
    bool RegisterAgain(const sptr<IMigrateServer>& service, const Observers::value_type& entry);

    MigrateServiceConnection connection_;
    Observers observers_ VEXA_GUARDED_BY(observersMutex_);
    Mutex observersMutex_{LockRank::KitsObservers};  // never held together with the connection's mutex
    HandlerGate gate_;
};

}  // namespace VEXA::UpdateEngine
