// SPDX-License-Identifier: Apache-2.0
// What this process serves, so that it can register again with a manager that has replaced a dead one.
#pragma once

#include <cstdint>
#include <map>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::samgr {

// One in a process, never destroyed; all operations may be called from any thread.
class OwnServices {
public:
    static OwnServices& Get();

    // Makes the process serve `object`, or nothing when it is null, under the number; returns what it served before.
    sptr<IRemoteObject> Replace(int32_t systemAbilityId, const sptr<IRemoteObject>& object);

private:
    OwnServices();
    // Adds everything to the manager of now.
    void AddAll();
    std::map<int32_t, sptr<IRemoteObject>> All();

    Mutex mutex_;
    std::map<int32_t, sptr<IRemoteObject>> services_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::samgr
