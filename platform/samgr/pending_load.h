// SPDX-License-Identifier: Apache-2.0
// One load that the manager was asked for: the callback object that it answers on.
#pragma once

#include <chrono>
#include <functional>

#include "load_outcome.h"
#include "samgr_limits.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_stub.h"

namespace VEXA::samgr {

// Calls `done` once with the outcome, on an IPC thread. A process that knows of an object's death must not get that
// object again from a manager that will hear of it a moment later: such an answer is dropped and the manager asked
// again, until it has noticed too or the deadline is there.
class PendingLoad : public IPCObjectStub {
public:
    using Done = std::function<void(const LoadOutcome&)>;

    PendingLoad(const sptr<IRemoteObject>& manager, int32_t systemAbilityId,
        std::chrono::steady_clock::time_point deadline, Done done);

    // Sends the load request. SAMGR_OK: `done` will be called, unless the load is abandoned. Anything else: it won't.
    int32_t Ask();
    // Makes the death of the manager an outcome. Call it after Ask has succeeded.
    void FailWithManager();
    // `done` is not called any more, unless it is running already.
    void Abandon();

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

private:
    class ManagerRecipient;

    void Take(LoadOutcome outcome);
    int32_t AskAgain();
    void Finish(const LoadOutcome& outcome);

    const sptr<IRemoteObject> manager_;
    const int32_t systemAbilityId_;
    const std::chrono::steady_clock::time_point deadline_;

    Mutex mutex_{LockRank::PendingLoad};
    Done done_ VEXA_GUARDED_BY(mutex_);  // empty once finished
    sptr<IRemoteObject::DeathRecipient> recipient_ VEXA_GUARDED_BY(mutex_);
    std::chrono::milliseconds pause_ VEXA_GUARDED_BY(mutex_) = kFirstPause;  // before the manager is asked again
};

}  // namespace VEXA::samgr
