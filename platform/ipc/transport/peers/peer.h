// SPDX-License-Identifier: Apache-2.0
// Another process, as this one knows it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "client_channel.h"
#include "link.h"
#include "one_way_credit.h"
#include "refusal_budget.h"
#include "socket.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

class Peer;

// An object of another process, as its peer keeps it.
class PeerObject : public IRemoteObject {
public:
    PeerObject(const sptr<Peer>& owner, ObjectId id) : IRemoteObject(std::u16string()), owner_(owner), id_(id) {}

    const sptr<Peer>& Owner() const { return owner_; }
    ObjectId Id() const { return id_; }
    // One more reference to the object has been received; they are given back together when this ends.
    void CountReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    // The process has died: hands the registered recipients to the notifier.
    virtual void NotifyDeath() = 0;

protected:
    // Gives the references back; the last that is done with this.
    void GiveBack();

private:
    const sptr<Peer> owner_;
    const ObjectId id_;
    std::atomic<uint64_t> references_{1};
};

// Lives while anyone needs it; known to the directory by its endpoint until the process dies. Any thread.
class Peer : public RefBase {
public:
    // Makes the object that stands for one of the peer's; null when memory is short.
    using MakeObject = std::function<sptr<PeerObject>(const sptr<Peer>& owner, ObjectId id)>;

    Peer(EndpointId id, const Credentials& credentials, MakeObject makeObject);
    ~Peer() override;

    EndpointId Id() const { return id_; }
    const Credentials& Who() const { return credentials_; }
    bool Dead() const { return dead_.load(std::memory_order_acquire); }
    // What the process shows when it opens a channel to this one.
    const ChannelKey& IssuedKey() const { return issuedKey_; }

    // Where two processes connect to each other at the same moment there are two links; each side sends on the first
    // that it has, so that what it sends stays in order.
    void AttachLink(const sptr<Link>& link);
    bool SendOnLink(const void* frame, size_t size);
    bool WaitLinkFlushed(Deadline deadline);
    // Makes the reactor see the end of all links, which is the process's death for this one.
    void ShutdownLinks();

    // The key for channels has come: the process has answered.
    void SetKey(const ChannelKey& key);
    // False when the process died, or did not answer before the deadline.
    bool WaitForKey(Deadline deadline, ChannelKey& key);
    bool HasAnswered();
    bool WaitUntilDead(std::chrono::milliseconds limit);

    // The process's object of that number, counting one more reference received.
    sptr<IRemoteObject> Object(ObjectId id);

    ClientChannels& Channels() { return channels_; }
    OneWayCredit& Credit() { return credit_; }
    OneWayDebt& Debt() { return debt_; }
    // On the reactor's thread: the process has sent what can't be right, or was unlucky with another that has died.
    // False when it does so again and again, and is taken for hostile.
    bool TakeRefusal(Deadline now) { return refusals_.Take(now); }

    // The process has died: ends what stands between it and this one, and tells the objects. The caller drops those
    // that are returned, which may be the last references to them.
    std::vector<sptr<PeerObject>> Bury();

private:
    friend class PeerObject;

    // An object ends: gives the references back that it stood for.
    void Forget(const PeerObject* object, ObjectId id, uint64_t references);
    std::vector<sptr<Link>> Links() VEXA_EXCLUDES(mutex_);
    sptr<Link> FirstLink() VEXA_EXCLUDES(mutex_);

    const EndpointId id_;
    const Credentials credentials_;
    const ChannelKey issuedKey_;
    const MakeObject makeObject_;
    std::atomic<bool> dead_{false};
    ClientChannels channels_;
    OneWayCredit credit_;
    OneWayDebt debt_;
    RefusalBudget refusals_;

    Mutex mutex_{LockRank::Peer};
    CondVar changed_;
    std::vector<sptr<Link>> links_ VEXA_GUARDED_BY(mutex_);
    bool answered_ VEXA_GUARDED_BY(mutex_) = false;
    ChannelKey key_ VEXA_GUARDED_BY(mutex_);

    Mutex objectsMutex_{LockRank::PeerObjects};
    // An object takes itself out when it ends; until then its entry may point to one that has no references left.
    std::unordered_map<ObjectId, PeerObject*> objects_ VEXA_GUARDED_BY(objectsMutex_);
};

}  // namespace VEXA::ipc
