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

// Stands for an object of another process.
class PeerObject : public IRemoteObject {
public:
    PeerObject(const sptr<Peer>& owner, ObjectId id);

    const sptr<Peer>& Owner() const { return owner_; }
    ObjectId Id() const { return id_; }
    // False when the connection that the object came to use has ended. The object never serves again then.
    bool IsCurrent() const;
    uint32_t Generation() const { return generation_; }
    // Counts the references to the object that have been received; they are given back together when this ends.
    void CountReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    uint64_t References() const { return references_.load(std::memory_order_relaxed); }
    // Is called when this is dead for good: hands the registered recipients to the notifier.
    virtual void NotifyDeath() = 0;

private:
    const sptr<Peer> owner_;
    const ObjectId id_;
    const uint32_t generation_;
    std::atomic<uint64_t> references_{1};
};

// Lives while anyone needs it. The directory knows it by its endpoint until the process dies. All operations may be
// called from any thread, unless said otherwise.
//
// One session connects two processes. It stands for the process that connected when the answer to its greeting comes,
// and for the other when the key follows. Until then frames wait, and a connection that fails costs only the objects
// that came to use it. docs/architecture.md has the states as a drawing.
class Peer : public RefBase {
public:
    // Makes the object that stands for one of the peer's; null when memory is short.
    using MakeObject = std::function<sptr<PeerObject>(const sptr<Peer>& owner, ObjectId id)>;

    Peer(EndpointId self, EndpointId id, MakeObject makeObject, ByteBudget& bytes);

    EndpointId Id() const { return who_.endpoint; }
    // Is known once the process has greeted, and stays: no other process is believed to be this one.
    const Caller& Who() const { return who_; }
    ByteBudget::Account Account() const { return {ProcessNumber(Who(), Id()), Who().uid}; }
    bool Dead() const { return state_.load(std::memory_order_acquire) == State::DEAD; }
    bool Stands() const { return state_.load(std::memory_order_acquire) == State::STANDS; }
    // The process's number; -1 before it has greeted.
    pid_t Pid() const { return Stands() || Dead() ? Who().pid : -1; }
    // Is odd while there is a connection, greeting or standing, and counts on when there is one and when it has gone.
    uint32_t Generation() const { return generation_.load(std::memory_order_acquire); }
    bool IsConnected() const { return Generation() % 2 != 0; }
    // The process shows this key when it opens a channel to this one.
    const ChannelKey& IssuedKey() const { return issuedKey_; }

    // Notes a connection that this process has made, for the answer to its greeting; false when there is another.
    bool Await(const sptr<Link>& link);
    // For the reactor's thread, each with the connection on which the frame came:
    // Answers a HELLO; false when a greeting is under way on another connection, whose end decides. When both processes
    // greet at once, the connection stays that the one with the larger endpoint has made.
    bool OnHello(const sptr<Link>& link);
    // Deal with the answer and with the key that follows it; false when they are not expected. An answer may come on a
    // connection that was made without knowing whom it reaches.
    bool OnReply(const sptr<Link>& link, bool wasUnknown, const ChannelKey& key);
    bool OnKey(const sptr<Link>& link, const ChannelKey& key);
    // True when the connection that greets or stands is with that process.
    bool IsWith(const Credentials& who);
    // Notes the end of a connection; false when it is not the one that greets or stands.
    bool OnEnd(const sptr<Link>& link, bool isDeath);

    // Sends a frame on the session, or keeps it until that stands; false when it is lost.
    bool SendOnLink(const void* frame, size_t size);
    // Waits until all that was sent is with the kernel.
    bool WaitLinkFlushed(Deadline deadline);

    // Waits for the session, and for the key for channels that came with it; false when there is none in that
    // generation, or not before the deadline.
    bool WaitForKey(Deadline deadline, uint32_t generation, ChannelKey& key);
    // Waits for the death of a process that has greeted; false when it lives on.
    bool WaitUntilDead(std::chrono::milliseconds limit);

    // The version that the process speaks, where that is why it refuses this one; else 0.
    std::atomic<uint32_t> otherVersion{0};

    // Returns what stands for the process's object of that number, and counts one more reference received.
    // Throws std::bad_alloc where memory is short; the reference is not counted then.
    sptr<IRemoteObject> Object(ObjectId id);
    // Is called at the end of an object: gives the references back that it stood for.
    void Forget(const PeerObject& object);
    // The proxy of one object, and a reference that keeps it alive while it is told of its death.
    struct Known {
        PeerObject* object = nullptr;
        sptr<PeerObject> held;
    };
    using Objects = std::unordered_map<ObjectId, Known>;
    // Tells all objects that they are dead. Needs no memory. The caller drops them, which may be the last references.
    Objects TellObjects();

    ClientChannels& Channels() { return channels_; }
    OneWayCredit& Credit() { return credit_; }
    OneWayDebt& Debt() { return debt_; }
    // On the reactor's thread: counts something that the process got wrong, be it by mistake or because another process
    // had just died. False when it does so again and again, and is taken for hostile.
    bool TakeRefusal(Deadline now) { return refusals_.Take(now); }

    // Is called when the process has died or is not there: ends its channels and tells the objects, as above.
    Objects Bury();

private:
    // ASKED: link_ is this process's own and awaits the answer; ANSWERED: link_ is the other's and awaits the key.
    enum class State : uint8_t { UNKNOWN, ASKED, ANSWERED, STANDS, DEAD };

    // Learns from the kernel who the process is. Only this may throw of what deals with a greeting, so it comes first.
    void Learn(const sptr<Link>& link) VEXA_REQUIRES(mutex_);
    void Enter(State state, const sptr<Link>& link) VEXA_REQUIRES(mutex_);
    void Stand(const sptr<Link>& link, const ChannelKey& key) VEXA_REQUIRES(mutex_);

    const EndpointId self_;
    // The endpoint is known from the start. The rest is written once, by the reactor's thread, before others know of
    // the greeting.
    Caller who_;
    const ChannelKey issuedKey_;
    const MakeObject makeObject_;
    std::atomic<State> state_{State::UNKNOWN};
    std::atomic<uint32_t> generation_{0};
    ClientChannels channels_;
    OneWayCredit credit_;
    OneWayDebt debt_;
    RefusalBudget refusals_;

    Mutex mutex_{LockRank::Peer};
    CondVar changed_;
    sptr<Link> link_ VEXA_GUARDED_BY(mutex_);
    std::vector<uint8_t> outbox_ VEXA_GUARDED_BY(mutex_);
    ChannelKey key_ VEXA_GUARDED_BY(mutex_);

    Mutex objectsMutex_{LockRank::PeerObjects};
    // An object takes itself out when it ends; until then its entry may point to one that has no references left.
    Objects objects_ VEXA_GUARDED_BY(objectsMutex_);
};

inline bool PeerObject::IsCurrent() const
{
    return generation_ == owner_->Generation();
}

}  // namespace VEXA::ipc
