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
    // The object itself is at hand, so whatever this count does, no last reference goes here.
    AdjustLocked(id, exports_[id], holder, 1);
    return id;
}

void ObjectTable::Adjust(ObjectId id, EndpointId holder, int64_t difference)
{
    sptr<IRemoteObject> dropped;  // before the lock, so that it goes after it
    MutexLock lock(mutex_);
    const auto found = exports_.find(id);
    if (found != exports_.end()) {
        dropped = AdjustLocked(id, found->second, holder, difference);
    }
}

sptr<IRemoteObject> ObjectTable::AdjustLocked(ObjectId id, Export& exported, EndpointId holder, int64_t difference)
{
    Holdings& holdings = holders_[holder];
    Holding& holding = holdings[id];
    if (holding.count == 0) {
        ++exported.holders;
        holding.exported = &exported;
    }
    holding.count += difference;
    if (holding.count != 0) {
        return nullptr;
    }
    holdings.erase(id);
    if (holdings.empty()) {
        holders_.erase(holder);
    }
    return --exported.holders == 0 ? DropLocked(id, exported) : nullptr;
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
    const auto holdings = holders_.find(holder);
    if (holdings == holders_.end()) {
        return nullptr;
    }
    const auto holding = holdings->second.find(id);
    return holding != holdings->second.end() && holding->second.count > 0 ? holding->second.exported->object : nullptr;
}

std::vector<sptr<IRemoteObject>> ObjectTable::DropHolder(EndpointId holder)
{
    std::vector<sptr<IRemoteObject>> dropped;
    MutexLock lock(mutex_);
    const auto holdings = holders_.find(holder);
    if (holdings != holders_.end()) {
        for (const auto& [id, holding] : holdings->second) {
            if (--holding.exported->holders == 0) {
                dropped.push_back(DropLocked(id, *holding.exported));
            }
        }
        holders_.erase(holdings);
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
