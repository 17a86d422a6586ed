// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/imigrate_callback.h"
#include "vexa/ipc/iremote_proxy.h"

namespace VEXA::UpdateEngine {

// The sending end of progress events. May be used from any thread.
class NATIVE_MIGRATE_EXPORT MigrateCallBackProxy : public IRemoteProxy<IMigrateCallBack> {
public:
    explicit MigrateCallBackProxy(const sptr<IRemoteObject>& object);
    ~MigrateCallBackProxy() override;

    // Sends `data` as it is and blocks for the answer, at most 8 seconds. Returns the answer of the receiver's stub, -1
    // without sending when the proxy has no remote object, or the transport's negative result (vexa/ipc/ipc_errors.h).
    int32_t OnMigrateProgress(MessageParcel& data, MessageParcel& reply) override;

private:
    static BrokerDelegator<MigrateCallBackProxy> delegator_;
};

}  // namespace VEXA::UpdateEngine
