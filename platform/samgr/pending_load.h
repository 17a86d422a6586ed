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

// Calls `done` once with the outcome, on an IPC thread. A process gets an object only when the object's own process has
// answered it: a manager may hear of a death a moment later than others, and a process may refuse a connection for a
// moment. Other answers are dropped and the manager is asked again, until the deadline.
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
