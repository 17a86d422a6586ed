// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "native_migrate/imigrate_callback.h"
#include "native_migrate/progress_callback.h"
#include "vexa/ipc/iremote_stub.h"

namespace VEXA::UpdateEngine {

// The receiving end of progress events: decodes each and hands it to a ProgressCallback. Takes no lock and does not
// order events: those that arrive at the same time run the callable on several threads at once.
class NATIVE_MIGRATE_EXPORT MigrateCallBackStub : public IRemoteStub<IMigrateCallBack> {
public:
    // Keeps a copy of the callable; the record itself may go.
    explicit MigrateCallBackStub(const ProgressCallback& callback);
    ~MigrateCallBackStub() override;

    // Called by the IPC runtime, on one of its threads. 0: taken. 104: wrong interface token. A code other than the
    // progress event's goes to the runtime's default handler, whose answer is returned.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    // Reads one event, behind its token, and runs the callable on this thread, for as long as that takes. Always 0: an
    // empty callable drops the event, and a text that is no event is delivered as far as it could be read.
    int32_t OnMigrateProgress(MessageParcel& data, MessageParcel& reply) override;

private:
    const std::function<void(const MigrateStage&, const EventInfo&)> callback_;
};

}  // namespace VEXA::UpdateEngine
