// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/iremote_broker.h"

namespace VEXA {

// Never destroyed: static delegators of other libraries come to it before main and after it.
BrokerRegistration& BrokerRegistration::Get()
{
    static BrokerRegistration* const instance = new BrokerRegistration;
    return *instance;
}

bool BrokerRegistration::Register(const std::u16string& descriptor, const Creator& creator)
{
    if (descriptor.empty() || !creator) {
        return false;
    }
    MutexLock lock(mutex_);
    return creators_.emplace(descriptor, creator).second;
}

void BrokerRegistration::Unregister(const std::u16string& descriptor)
{
    decltype(creators_)::node_type dropped;  // goes after the lock
    MutexLock lock(mutex_);
    dropped = creators_.extract(descriptor);
}

sptr<IRemoteBroker> BrokerRegistration::NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object)
{
    if (object == nullptr) {
        return nullptr;
    }
    MutexLock lock(mutex_);
    const auto found = creators_.find(descriptor);
    if (found == creators_.end()) {
        return nullptr;
    }
    // A copy is called, without the mutex, because a creator may come back here.
    const Creator creator = found->second;
    lock.Unlock();
    return creator(object);
}

}  // namespace VEXA
