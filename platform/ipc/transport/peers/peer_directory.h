// SPDX-License-Identifier: Apache-2.0
// The processes that this one knows, alive and dead, and what it does with each of them.
#pragma once

#include <atomic>
#include <functional>
#include <unordered_map>
#include <vector>

#include "connection_counts.h"
#include "death_notifier.h"
#include "object_table.h"
#include "peer.h"
#include "reactor.h"
#include "transport/limits.h"
#include "vexa/base/mutex.h"
#include "wire.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// Outlives its peers. All operations may be called from any thread, unless said otherwise.
class PeerDirectory {
public:
    // The parts of a transport that a directory works with.
    struct Parts {
        EndpointId self;
        ObjectTable& objects;
        Reactor& reactor;
        WorkerPool& workers;
        ConnectionCounts& connections;
        ByteBudget& bytes;
        DeathNotifier& deaths;
        Peer::MakeObject makeObject;
        // Makes a session, which is yet to greet, on a new connection to that peer.
        std::function<sptr<Link>(Connection connection, const sptr<Peer>& peer)> openSession;
        // Called on the reactor's thread when a process has died and all that lived off it has been told.
        std::function<void(EndpointId dead)> onDeath;
    };
    explicit PeerDirectory(Parts parts) : parts_(std::move(parts)) { dead_.reserve(kMostDead); }

    EndpointId Self() const { return parts_.self; }
    ObjectTable& Objects() const { return parts_.objects; }
    Reactor& Loop() const { return parts_.reactor; }
    DeathNotifier& Deaths() const { return parts_.deaths; }
    // Numbers a request of this process.
    uint64_t NextRequest() { return requests_.fetch_add(1, std::memory_order_relaxed) + 1; }

    // Returns the process with that endpoint, and connects to it if need be. The objects of the peer are dead from the
    // start where that fails. Never waits.
    sptr<Peer> PeerAt(EndpointId id);
    // Does the same without connecting: null when the process is not known.
    sptr<Peer> KnownPeer(EndpointId id);
    // True when the process with that endpoint is among those that are remembered as dead.
    bool HasDied(EndpointId id);

    // Asks all processes to close the channels that they keep for later.
    void AskToCloseIdle();

    // Counts one more reference of a process to an object of this process, which the caller keeps alive. Returns the
    // object's number.
    ObjectId AddHolder(const sptr<IRemoteObject>& object, EndpointId holder);
    // Changes a process's count for an object of this process. An object that ends by it ends on a worker.
    void AdjustHolder(ObjectId id, EndpointId holder, int64_t difference);

    // For the reactor's thread:
    // Returns the process that introduces itself on a connection; null when it is not the one that it claims to be.
    sptr<Peer> Identify(EndpointId claimed, const Credentials& who);
    // Is called when a connection of the process has ended, with the reason where the process has given one. It is the
    // process's death if the session stood there.
    void OnLinkEnd(const sptr<Peer>& peer, const sptr<Link>& link, Refusal why);
    // Connects again to the processes that could not be reached, and forgets those that are not there any more.
    void OnTick(Deadline now);

private:
    bool IsDead(EndpointId id) const VEXA_REQUIRES(mutex_);
    // Returns the peer, which is new unless the process is known, and dead where it is remembered as that.
    sptr<Peer> Find(EndpointId id) VEXA_REQUIRES(mutex_);
    // Connects to a process that is not connected; false, with errno, when that fails.
    bool Connect(const sptr<Peer>& peer) VEXA_REQUIRES(mutex_);
    // Drops a peer, and all that its process holds. Like all that a death needs, it takes no memory.
    void Forget(const sptr<Peer>& peer) VEXA_REQUIRES(mutex_);
    // Removes a dead holder from the table once more: it may have been counted after its death had cleared it.
    void DropIfDead(EndpointId holder);
    // True when the process that claims the endpoint listens there.
    bool IsEndpointOf(EndpointId claimed, const Credentials& credentials) const;

    struct Known {
        sptr<Peer> peer;
        bool isApart = false;     // it may not be connected: OnTick looks
        Deadline missingSince{};  // since when it has been seen to have no endpoint
    };
    void TryLater(Known& known) VEXA_REQUIRES(mutex_);

    const Parts parts_;
    std::atomic<uint64_t> requests_{0};
    Mutex mutex_{LockRank::PeerDirectory};
    std::unordered_map<EndpointId, Known> peers_ VEXA_GUARDED_BY(mutex_);
    Reactor::Ticks ticks_ VEXA_GUARDED_BY(mutex_);  // while any is apart
    // Endpoints that have died: a peer that is made for one is dead from the start. The latest kMostDead are kept.
    std::vector<EndpointId> dead_ VEXA_GUARDED_BY(mutex_);
    uint64_t deaths_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
