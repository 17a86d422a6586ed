// SPDX-License-Identifier: Apache-2.0
// An object of another process.
#pragma once

#include <atomic>
#include <vector>

#include "peer.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

class RemoteProxy : public IRemoteObject {
public:
    RemoteProxy(const sptr<Peer>& peer, ObjectId id);
    ~RemoteProxy() override;

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool IsProxyObject() const override { return true; }
    bool IsObjectDead() const override { return peer_->Dead(); }

    const sptr<Peer>& Owner() const { return peer_; }
    ObjectId Id() const { return id_; }
    // One more reference to the object has been received; they are given back together when the proxy ends.
    void CountReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    // The process has died: hands the registered recipients to the notifier.
    void NotifyDeath();

private:
    int32_t SendSync(uint32_t code, MessageParcel& data, MessageParcel& reply, int32_t waitTime);
    int32_t SendOneWay(uint32_t code, MessageParcel& data);
    ClientChannel OpenChannel(Deadline deadline, int32_t& error);

    const sptr<Peer> peer_;
    const ObjectId id_;
    std::atomic<uint64_t> references_{1};

    Mutex mutex_;
    std::vector<sptr<DeathRecipient>> recipients_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
