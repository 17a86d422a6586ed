// SPDX-License-Identifier: Apache-2.0
#include "object_table.h"

namespace VEXA::ipc {

ObjectId ObjectTable::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    MutexLock lock(mutex_);
    const auto [known, isNew] = ids_.try_emplace(object.GetRefPtr(), nextId_);
    const ObjectId id = known->second;
    if (isNew) {
        ++nextId_;
        exports_[id].object = object;
    }
    // A count that goes up drops nothing.
    AdjustLocked(id, exports_[id], holder, 1);
    return id;
}

sptr<IRemoteObject> ObjectTable::Adjust(ObjectId id, EndpointId holder, int64_t difference)
{
    MutexLock lock(mutex_);
    const auto found = exports_.find(id);
    return found != exports_.end() ? AdjustLocked(id, found->second, holder, difference) : nullptr;
}

sptr<IRemoteObject> ObjectTable::AdjustLocked(ObjectId id, Export& exported, EndpointId holder, int64_t difference)
{
    int64_t& count = exported.counts[holder];
    const bool held = count > 0;
    count += difference;
    const bool holds = count > 0;
    if (count == 0) {
        exported.counts.erase(holder);
    }
    if (holds && !held) {
        ++exported.holders;
    } else if (held && !holds && --exported.holders == 0) {
        return DropLocked(id, exported);
    }
    return nullptr;
}

sptr<IRemoteObject> ObjectTable::DropLocked(ObjectId id, Export& exported)
{
    sptr<IRemoteObject> object = std::move(exported.object);
    ids_.erase(object.GetRefPtr());
    exports_.erase(id);
    return object;
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
        auto& [id, exported] = *next++;
        const auto count = exported.counts.find(holder);
        const bool held = count != exported.counts.end() && count->second > 0;
        if (count != exported.counts.end()) {
            exported.counts.erase(count);
        }
        if (held && --exported.holders == 0) {
            dropped.push_back(DropLocked(id, exported));
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
