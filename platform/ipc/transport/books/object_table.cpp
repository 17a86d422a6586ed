// SPDX-License-Identifier: Apache-2.0
#include "object_table.h"

#include <algorithm>
#include <utility>

namespace VEXA::ipc {

ObjectId ObjectTable::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    MutexLock lock(mutex_);
    const auto [known, isNew] = ids_.try_emplace(object.GetRefPtr(), nextId_);
    const ObjectId id = known->second;
    if (isNew) {
        exports_[nextId_++].object = object;
    }
    // A count that goes up drops nothing.
    AdjustLocked(exports_.find(id), holder, 1);
    return id;
}

sptr<IRemoteObject> ObjectTable::Adjust(ObjectId id, EndpointId holder, int64_t difference)
{
    MutexLock lock(mutex_);
    return AdjustLocked(exports_.find(id), holder, difference);
}

sptr<IRemoteObject> ObjectTable::AdjustLocked(Exports::iterator exported, EndpointId holder, int64_t difference)
{
    if (exported == exports_.end()) {
        return nullptr;
    }
    auto& [object, counts] = exported->second;
    int64_t& count = counts[holder];
    count += difference;
    if (count == 0) {
        counts.erase(holder);
    }
    if (std::ranges::any_of(counts, [](const auto& entry) { return entry.second > 0; })) {
        return nullptr;
    }
    sptr<IRemoteObject> dropped = std::move(object);
    ids_.erase(dropped.GetRefPtr());
    exports_.erase(exported);
    return dropped;
}

sptr<IRemoteObject> ObjectTable::Find(ObjectId id, EndpointId holder)
{
    MutexLock lock(mutex_);
    if (id == kContextObject) {
        return context_;
    }
    const auto found = exports_.find(id);
    if (found == exports_.end()) {
        return nullptr;
    }
    const auto count = found->second.counts.find(holder);
    return count != found->second.counts.end() && count->second > 0 ? found->second.object : nullptr;
}

std::vector<sptr<IRemoteObject>> ObjectTable::DropHolder(EndpointId holder)
{
    std::vector<sptr<IRemoteObject>> dropped;
    MutexLock lock(mutex_);
    for (auto next = exports_.begin(); next != exports_.end();) {
        const auto exported = next++;
        const auto count = exported->second.counts.find(holder);
        if (count == exported->second.counts.end()) {
            continue;
        }
        if (sptr<IRemoteObject> object = AdjustLocked(exported, holder, -count->second)) {
            dropped.push_back(std::move(object));
        }
    }
    return dropped;
}

void ObjectTable::SetContextObject(const sptr<IRemoteObject>& object)
{
    MutexLock lock(mutex_);
    context_ = object;
}

size_t ObjectTable::Size()
{
    MutexLock lock(mutex_);
    return exports_.size();
}

}  // namespace VEXA::ipc
