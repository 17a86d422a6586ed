// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/ireserve_migrate_status_observer.h"
#include "vexa/ipc/iremote_stub.h"

namespace VEXA::UpdateEngine {

// The receiving end. A caller derives from it, implements OnRestoreStatusChanged and passes an object of its class to
// ReserveMigrateKits::RegisterCallback. The implementation runs on a thread of the process's IPC pool, on several at
// once when statuses arrive at the same time, and the service waits for its result.
class NATIVE_MIGRATE_EXPORT ReserveMigrateStatusObserverStub : public IRemoteStub<IReserveMigrateStatusObserver> {
public:
    ReserveMigrateStatusObserverStub();
    ~ReserveMigrateStatusObserverStub() override;

    // Called by the IPC runtime. 104: wrong interface token. 100: unknown code. Else what the implementation returned.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
};

}  // namespace VEXA::UpdateEngine
