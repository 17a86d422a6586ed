// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/imigrate_server.h"
#include "vexa/ipc/iremote_proxy.h"

namespace VEXA::UpdateEngine {

// The client's side of the migration service.
class MigrateServiceProxy : public IRemoteProxy<IMigrateServer> {
public:
    explicit MigrateServiceProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<IMigrateServer>(object) {}

    // Blocks until the answer, at most 8 seconds. Returns 0 on success, the service's own result when it answered with
    // one, and MIGRATE_UNREACHABLE for everything else: no remote object, or a failure of the transport.
    int32_t SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply) override;

private:
    static BrokerDelegator<MigrateServiceProxy> delegator_;
};

}  // namespace VEXA::UpdateEngine
