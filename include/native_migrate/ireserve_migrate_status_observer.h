// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/export.h"
#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/iremote_broker.h"

namespace VEXA::UpdateEngine {

// How the migration service reports the status of reserved applications. Only the service sends on it: the library has
// a stub for it and no proxy.
class NATIVE_MIGRATE_EXPORT IReserveMigrateStatusObserver : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(RESERVE_STATUS_OBSERVER_DESCRIPTOR)

    // `statusJsonString`: the JSON text of a list of RestoreEventInfo, as the service sent it; JsonParse reads it into
    // records. The result goes back to the service as the request's result.
    virtual int32_t OnRestoreStatusChanged(const std::string& statusJsonString) = 0;
};

}  // namespace VEXA::UpdateEngine
