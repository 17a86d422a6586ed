// SPDX-License-Identifier: Apache-2.0
// An object that can be called across processes: the original in its own process, a proxy everywhere else.
#pragma once

#include <cstdint>
#include <string>

#include "vexa/base/export.h"
#include "vexa/base/refbase.h"

namespace VEXA {

class IRemoteBroker;
class MessageOption;
class MessageParcel;

// All operations may be called from any thread.
class VEXA_EXPORT IRemoteObject : public virtual RefBase {
public:
    // Is told of the death of the process that an object lives in.
    class VEXA_EXPORT DeathRecipient : public virtual RefBase {
    public:
        // Runs once for each registration, on a notification thread of the process. Recipients begin in the order in
        // which they were registered, one after the other; one that takes longer than 5 ms holds up no other, and the
        // others may then run beside it. With eight held up the rest waits. One recipient never runs twice at the same
        // time. The runtime keeps the recipient alive while it runs.
        virtual void OnRemoteDied(const wptr<IRemoteObject>& object) = 0;
    };

    explicit IRemoteObject(std::u16string descriptor);
    ~IRemoteObject() override;

    // Sends a request and, unless it is one-way, waits for the reply, at most the option's wait time. To that may come
    // 1 s for a connection, or for telling the owner of an object that it is passed on, and 0.5 s to learn whether the
    // process has died. 0 is success, a negative value an IpcError, any other value what the object's OnRemoteRequest
    // returned. On the original object this is a plain call of OnRemoteRequest.
    virtual int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;

    // Registers a recipient; true on a proxy, also when its process is dead already (the notice then follows at once).
    // False on an original, which dies with the caller, for a null recipient, and in a child of fork.
    virtual bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) = 0;
    // Withdraws one registration; false when there is none. Once this has returned, the recipient is not called any
    // more, unless it is running already.
    virtual bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) = 0;

    virtual bool IsProxyObject() const = 0;
    virtual bool IsObjectDead() const = 0;
    // Returns the interface behind the object: its own on an original; null on a proxy, see iface_cast.
    virtual sptr<IRemoteBroker> AsInterface();
    // Returns the interface descriptor; empty on a proxy, whose interface only its user knows.
    const std::u16string& GetObjectDescriptor() const { return descriptor_; }

private:
    const std::u16string descriptor_;
};

}  // namespace VEXA
