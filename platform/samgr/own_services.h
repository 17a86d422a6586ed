// SPDX-License-Identifier: Apache-2.0
// The services of this process, kept so that it can register them with a manager that has replaced a dead one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::samgr {

// All operations may be called from any thread.
class OwnServices {
public:
    // Tells the manager of now what is served under a number: nothing any more when the object is null.
    using Tell = std::function<int32_t(int32_t systemAbilityId, const sptr<IRemoteObject>& object)>;

    explicit OwnServices(Tell tell) : tell_(std::move(tell)) {}

    // This process's, never destroyed. It tells each new manager.
    static OwnServices& Get();

    // Makes the process serve `object`, or nothing when it is null, under the number; returns what it served before.
    sptr<IRemoteObject> Replace(int32_t systemAbilityId, const sptr<IRemoteObject>& object);

    // Tells the manager of everything, and of what is replaced meanwhile: its own word may have come first.
    void TellAll();

private:
    std::map<int32_t, sptr<IRemoteObject>> All();
    sptr<IRemoteObject> Find(int32_t systemAbilityId);

    const Tell tell_;
    Mutex mutex_{LockRank::OwnServices};
    std::map<int32_t, sptr<IRemoteObject>> services_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::samgr
