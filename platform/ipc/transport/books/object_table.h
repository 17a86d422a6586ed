// SPDX-License-Identifier: Apache-2.0
// The objects of this process that other processes hold, and who holds them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

// A process holds an object while its count for that object is above 0. An object stays in the table, and so alive, as
// long as anyone holds it, and only holders may call it. Counts travel on links of different processes, so a holder's
// RELEASE can overtake the GRANT by which another process made it one; a count below 0 is that debt. It keeps nothing
// alive: the granting process still does. All operations may be called from any thread.
class ObjectTable {
public:
    // Objects that nobody holds any more. Their last references go when the caller drops them, outside the table's
    // lock.
    using Dropped = std::list<sptr<IRemoteObject>>;

    // Counts one more reference of `holder` to the object, which enters the table if it is new. Returns its number.
    ObjectId AddHolder(const sptr<IRemoteObject>& object, EndpointId holder);
    // Changes `holder`'s count for an object that is in the table; others are ignored. Returns the object when nobody
    // holds it any more.
    [[nodiscard]] Dropped Adjust(ObjectId id, EndpointId holder, int64_t difference);
    // Returns the object if `holder` holds it, else null.
    sptr<IRemoteObject> Find(ObjectId id, EndpointId holder);
    // Forgets all that a process held. Returns the objects that nobody holds any more. Needs no memory.
    Dropped DropHolder(EndpointId holder);

    void SetContextObject(const sptr<IRemoteObject>& object);
    size_t Size();

private:
    struct Export {
        Dropped object;                                  // one, in the node that it is dropped in
        std::unordered_map<EndpointId, int64_t> counts;  // other than 0
    };
    using Exports = std::unordered_map<ObjectId, Export>;

    void AdjustLocked(Exports::iterator exported, EndpointId holder, int64_t difference, Dropped& dropped)
        VEXA_REQUIRES(mutex_);

    Mutex mutex_{LockRank::ObjectTable};
    ObjectId nextId_ VEXA_GUARDED_BY(mutex_) = kContextObject + 1;
    Exports exports_ VEXA_GUARDED_BY(mutex_);
    std::unordered_map<const IRemoteObject*, ObjectId> ids_ VEXA_GUARDED_BY(mutex_);
    sptr<IRemoteObject> context_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
