// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/iremote_request.h"
#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/iremote_broker.h"

namespace VEXA::UpdateEngine {

// The migration service's remote interface. Every operation is a SendRemoteRequest with a MigrateRequestCode.
class IMigrateServer : public IRemoteBroker, public IRemoteRequest {
public:
    DECLARE_INTERFACE_DESCRIPTOR(MIGRATE_SERVER_DESCRIPTOR)
};

}  // namespace VEXA::UpdateEngine
