// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "native_migrate/export.h"
#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/iremote_broker.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::UpdateEngine {

// How the migration service reports progress into a client's process.
class NATIVE_MIGRATE_EXPORT IMigrateCallBack : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(MIGRATE_CALLBACK_DESCRIPTOR)

    // One event. `data` holds the interface token, the stage (uint32) and the JSON text of an EventInfo (string), all
    // written by the sender; `reply` stays empty. 0 when the event was taken; see the stub and the proxy for the rest.
    virtual int32_t OnMigrateProgress(MessageParcel& data, MessageParcel& reply) = 0;
};

}  // namespace VEXA::UpdateEngine
