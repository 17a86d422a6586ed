// SPDX-License-Identifier: Apache-2.0
// Calls an object of another process.
#pragma once

#include "peer.h"
#include "peer_directory.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

class RemoteProxy : public PeerObject {
public:
    RemoteProxy(PeerDirectory& peers, const sptr<Peer>& peer, ObjectId id) : PeerObject(peer, id), peers_(peers) {}
    ~RemoteProxy() override;

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool IsProxyObject() const override { return true; }
    bool IsObjectDead() const override { return !IsCurrent() || Generation() % 2 == 0; }

    void NotifyDeath() override;

private:
    int32_t SendSync(uint64_t number, uint32_t code, MessageParcel& data, MessageParcel& reply, int32_t waitTime);
    int32_t SendOneWay(uint64_t number, uint32_t code, MessageParcel& data);
    ClientChannel OpenChannel(Deadline deadline, int32_t& error);
    // Returns the result of a request that has lost its connection. Waits so long for word of the process's death.
    int32_t Lost(std::chrono::milliseconds lag = {}) const;

    Peer& Process() const { return *Owner(); }

    PeerDirectory& peers_;
    Mutex mutex_{LockRank::RemoteProxy};
    DeathNotifier::Notices recipients_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
