// SPDX-License-Identifier: Apache-2.0
// The objects of this process that other processes hold, and who holds them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

// An object stays in the table, and so alive, while a process has a count above 0 for it; only such a process may call
// it. Counts travel on links of different processes, so a holder's RELEASE can overtake the GRANT by which another
// process made it one; a count below 0 is that debt, and keeps nothing alive: the granting process still does. One
// table in a process; all operations may be called from any thread.
class ObjectTable {
public:
    // Counts one more reference of `holder` to the object, which enters the table if it is new; its number.
    ObjectId AddHolder(const sptr<IRemoteObject>& object, EndpointId holder);
    // Changes `holder`'s count for an object that is in the table; others are ignored. Returns the object when nobody
    // holds it any more: its last reference may go with the result.
    [[nodiscard]] sptr<IRemoteObject> Adjust(ObjectId id, EndpointId holder, int64_t difference);
    // The object, if `holder` holds it.
    sptr<IRemoteObject> Find(ObjectId id, EndpointId holder);
    // Forgets all that a process held. Returns the objects that nobody holds any more: their last references go when
    // the caller drops them, outside the table's lock.
    std::vector<sptr<IRemoteObject>> DropHolder(EndpointId holder);

    void SetContextObject(const sptr<IRemoteObject>& object);
    size_t Size();

private:
    struct Export {
        sptr<IRemoteObject> object;
        std::unordered_map<EndpointId, int64_t> counts;  // other than 0
        size_t holders = 0;                              // with a count above 0
    };

    sptr<IRemoteObject> AdjustLocked(ObjectId id, Export& exported, EndpointId holder, int64_t difference)
        VEXA_REQUIRES(mutex_);
    sptr<IRemoteObject> DropLocked(ObjectId id, Export& exported) VEXA_REQUIRES(mutex_);

    Mutex mutex_{LockRank::ObjectTable};
    ObjectId nextId_ VEXA_GUARDED_BY(mutex_) = kContextObject + 1;
    std::unordered_map<ObjectId, Export> exports_ VEXA_GUARDED_BY(mutex_);
    std::unordered_map<const IRemoteObject*, ObjectId> ids_ VEXA_GUARDED_BY(mutex_);
    sptr<IRemoteObject> context_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
