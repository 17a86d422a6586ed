// SPDX-License-Identifier: Apache-2.0
// The base of remote interfaces, and the registry that makes a proxy for a descriptor.
#pragma once

#include <functional>
#include <map>
#include <new>
#include <string>

#include "vexa/base/export.h"
#include "vexa/base/mutex.h"
#include "vexa/base/refbase.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA {

class VEXA_EXPORT IRemoteBroker : public virtual RefBase {
public:
    ~IRemoteBroker() override = default;
    // Returns the remote object behind the interface.
    virtual sptr<IRemoteObject> AsObject() = 0;
};

// Gives an interface its descriptor. The string is made on first use: broker registrations read it while static
// objects are being built. It is never destroyed: threads of the runtime read it while the process exits.
#define DECLARE_INTERFACE_DESCRIPTOR(text)                                         \
    static const std::u16string& GetDescriptor()                                   \
    {                                                                              \
        static const std::u16string& descriptor = *new const std::u16string(text); \
        return descriptor;                                                         \
    }

// Knows the creator of the proxy class for each descriptor. A process has one; all operations may be called from any
// thread.
class VEXA_EXPORT BrokerRegistration {
public:
    using Creator = std::function<sptr<IRemoteBroker>(const sptr<IRemoteObject>&)>;

    static BrokerRegistration& Get();

    // False when the descriptor has a creator already, or is empty.
    bool Register(const std::u16string& descriptor, const Creator& creator);
    void Unregister(const std::u16string& descriptor);
    // Makes a proxy around the object; null for a null object, an unknown descriptor, or when the creator makes none.
    sptr<IRemoteBroker> NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object);

private:
    BrokerRegistration() = default;

    Mutex mutex_{LockRank::Brokers};
    std::map<std::u16string, Creator> creators_ VEXA_GUARDED_BY(mutex_);
};

// Registers proxy class T for its interface's descriptor while the delegator lives. Meant as a static member of T.
template <typename T>
class BrokerDelegator {
public:
    BrokerDelegator()
    {
        registered_ = BrokerRegistration::Get().Register(T::GetDescriptor(),
            [](const sptr<IRemoteObject>& object) { return sptr<IRemoteBroker>(new (std::nothrow) T(object)); });
    }
    ~BrokerDelegator()
    {
        if (registered_) {
            BrokerRegistration::Get().Unregister(T::GetDescriptor());
        }
    }
    BrokerDelegator(const BrokerDelegator&) = delete;
    BrokerDelegator& operator=(const BrokerDelegator&) = delete;

private:
    bool registered_ = false;
};

// Returns the interface INTERFACE of a remote object: the original itself where the object is at home and offers it, a
// new proxy elsewhere; null when neither is to be had.
template <typename INTERFACE>
sptr<INTERFACE> iface_cast(const sptr<IRemoteObject>& object)
{
    if (object == nullptr) {
        return nullptr;
    }
    sptr<IRemoteBroker> broker;
    if (object->IsProxyObject()) {
        broker = BrokerRegistration::Get().NewInstance(INTERFACE::GetDescriptor(), object);
    } else if (object->GetObjectDescriptor() == INTERFACE::GetDescriptor()) {
        broker = object->AsInterface();
    }
    return sptr<INTERFACE>(static_cast<INTERFACE*>(broker.GetRefPtr()));
}

}  // namespace VEXA
