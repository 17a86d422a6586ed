// SPDX-License-Identifier: Apache-2.0
#include "object_table.h"

#include <algorithm>
#include <new>

namespace VEXA::ipc {

ObjectId ObjectTable::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    Dropped none;  // a count that goes up drops nothing
    MutexLock lock(mutex_);
    const auto [known, isNew] = ids_.try_emplace(object.GetRefPtr(), nextId_);
    const ObjectId id = known->second;
    try {
        if (isNew) {
            exports_[nextId_++].object.push_back(object);
        }
        AdjustLocked(exports_.find(id), holder, 1, none);
    } catch (const std::bad_alloc&) {
        if (isNew) {
            exports_.erase(id);
            ids_.erase(known);
        }
        throw;
    }
    return id;
}

ObjectTable::Dropped ObjectTable::Adjust(ObjectId id, EndpointId holder, int64_t difference)
{
    Dropped dropped;
    MutexLock lock(mutex_);
    if (const auto exported = exports_.find(id); exported != exports_.end()) {
        AdjustLocked(exported, holder, difference, dropped);
    }
    return dropped;
}

void ObjectTable::AdjustLocked(Exports::iterator exported, EndpointId holder, int64_t difference, Dropped& dropped)
{
    auto& [object, counts] = exported->second;
    int64_t& count = counts[holder];
    count += difference;
    if (count == 0) {
        counts.erase(holder);
    }
    if (std::ranges::none_of(counts, [](const auto& entry) { return entry.second > 0; })) {
        ids_.erase(object.front().GetRefPtr());
        dropped.splice(dropped.end(), object);
        exports_.erase(exported);
    }
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
    return count != found->second.counts.end() && count->second > 0 ? found->second.object.front() : nullptr;
}

ObjectTable::Dropped ObjectTable::DropHolder(EndpointId holder)
{
    Dropped dropped;
    MutexLock lock(mutex_);
    for (auto next = exports_.begin(); next != exports_.end();) {
        const auto exported = next++;
        const auto count = exported->second.counts.find(holder);
        if (count != exported->second.counts.end()) {
            AdjustLocked(exported, holder, -count->second, dropped);
        }
    }
    return dropped;
}

void ObjectTable::SetContextObject(const sptr<IRemoteObject>& object)
{
    sptr<IRemoteObject> previous = object;  // goes after the lock
    MutexLock lock(mutex_);
    context_.Swap(previous);
}

size_t ObjectTable::Size()
{
    MutexLock lock(mutex_);
    return exports_.size();
}

}  // namespace VEXA::ipc
