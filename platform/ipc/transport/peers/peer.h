// SPDX-License-Identifier: Apache-2.0
// Another process, as this one knows it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
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

// Stands for an object of another process.
class PeerObject : public IRemoteObject {
public:
    PeerObject(const sptr<Peer>& owner, ObjectId id) : IRemoteObject(std::u16string()), owner_(owner), id_(id) {}

    const sptr<Peer>& Owner() const { return owner_; }
    ObjectId Id() const { return id_; }
    // Counts the references to the object that have been received; they are given back together when this ends.
    void CountReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    uint64_t References() const { return references_.load(std::memory_order_relaxed); }
    // Is called when the process has died: hands the registered recipients to the notifier.
    virtual void NotifyDeath() = 0;

private:
    const sptr<Peer> owner_;
    const ObjectId id_;
    std::atomic<uint64_t> references_{1};
};

// Lives while anyone needs it. The directory knows it by its endpoint until the process dies. All operations may be
// called from any thread, unless said otherwise.
class Peer : public RefBase {
public:
    // Makes the object that stands for one of the peer's; null when memory is short.
    using MakeObject = std::function<sptr<PeerObject>(const sptr<Peer>& owner, ObjectId id)>;

    Peer(EndpointId id, const Credentials& credentials, MakeObject makeObject);

    EndpointId Id() const { return id_; }
    const Credentials& Who() const { return credentials_; }
    bool Dead() const { return dead_.load(std::memory_order_acquire); }
    // The process shows this key when it opens a channel to this one.
    const ChannelKey& IssuedKey() const { return issuedKey_; }

    // Two processes that connect to each other at the same moment have two links. Each side sends on the first that it
    // has, so that its frames stay in order.
    void AttachLink(const sptr<Link>& link);
    bool SendOnLink(const void* frame, size_t size);
    bool WaitLinkFlushed(Deadline deadline);
    // Ends all links, which is the process's death for this one.
    void ShutdownLinks();

    // Notes the key for channels, with which the process has answered.
    void SetKey(const ChannelKey& key);
    // Waits for that key; false when the process died, or did not answer before the deadline.
    bool WaitForKey(Deadline deadline, ChannelKey& key);
    bool HasAnswered();
    bool WaitUntilDead(std::chrono::milliseconds limit);

    // Returns what stands for the process's object of that number, and counts one more reference received.
    sptr<IRemoteObject> Object(ObjectId id);
    // Is called at the end of an object: gives the references back that it stood for.
    void Forget(const PeerObject& object);

    ClientChannels& Channels() { return channels_; }
    OneWayCredit& Credit() { return credit_; }
    OneWayDebt& Debt() { return debt_; }
    // On the reactor's thread: counts something that the process got wrong, be it by mistake or because another process
    // had just died. False when it does so again and again, and is taken for hostile.
    bool TakeRefusal(Deadline now) { return refusals_.Take(now); }

    // Is called when the process has died: ends all connections with it, and tells the objects. The caller drops the
    // objects that are returned, which may be the last references to them.
    std::vector<sptr<PeerObject>> Bury();

private:
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
    std::optional<ChannelKey> key_ VEXA_GUARDED_BY(mutex_);

    Mutex objectsMutex_{LockRank::PeerObjects};
    // An object takes itself out when it ends; until then its entry may point to one that has no references left.
    std::unordered_map<ObjectId, PeerObject*> objects_ VEXA_GUARDED_BY(objectsMutex_);
};

}  // namespace VEXA::ipc
