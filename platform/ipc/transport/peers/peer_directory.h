// SPDX-License-Identifier: Apache-2.0
// The processes that this one knows, alive and dead, and what it does with each of them.
#pragma once

#include <deque>
#include <functional>
#include <unordered_map>
#include <unordered_set>

#include "connection_counts.h"
#include "death_notifier.h"
#include "local_endpoint.h"
#include "object_table.h"
#include "peer.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "wire.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// Any thread, unless said otherwise. Outlives its peers.
class PeerDirectory {
public:
    // What this process has in one piece.
    struct Parts {
        EndpointId self;
        ObjectTable& objects;
        Reactor& reactor;
        WorkerPool& workers;
        ConnectionCounts& connections;
        DeathNotifier& deaths;
        LocalEndpoint& endpoint;
        Peer::MakeObject makeObject;
        // A session on a new connection to that peer, which greets.
        std::function<sptr<Link>(Connection connection, const sptr<Peer>& peer)> openSession;
        // Called on the reactor's thread when a process has died and all that lived off it has been told.
        std::function<void(EndpointId dead)> onDeath;
    };
    explicit PeerDirectory(Parts parts) : parts_(std::move(parts)) {}

    EndpointId Self() const { return parts_.self; }
    ObjectTable& Objects() const { return parts_.objects; }
    Reactor& Loop() const { return parts_.reactor; }
    DeathNotifier& Deaths() const { return parts_.deaths; }
    LocalEndpoint& Endpoint() const { return parts_.endpoint; }

    // The process with that endpoint, connected to now if it was not before. Where it can't be reached, or is known to
    // have died, a peer that is dead. Never waits.
    sptr<Peer> PeerAt(EndpointId id);
    // The same, null instead of connecting.
    sptr<Peer> KnownPeer(EndpointId id);
    // True when the process with that endpoint is among those that are remembered as dead.
    bool HasDied(EndpointId id);

    // Counts one more reference of a process to an object of this process, which the caller keeps alive; its number.
    ObjectId AddHolder(const sptr<IRemoteObject>& object, EndpointId holder);
    // Changes a process's count for an object of this process. An object that ends by it ends on a worker.
    void AdjustHolder(ObjectId id, EndpointId holder, int64_t difference);

    // For the reactor's thread:
    // The process that introduces itself on a link, which is answered with a frame of that kind; null when it is not
    // who it says.
    sptr<Peer> Greet(EndpointId claimed, const sptr<Link>& link, FrameKind answer);
    // A link of the process has ended.
    void Bury(const sptr<Peer>& peer);

private:
    // Drops what may be the last references to objects, whose code must not hold up the reactor.
    template <typename Object>
    void DropOnWorker(std::vector<sptr<Object>> objects)
    {
        if (!objects.empty()) {
            parts_.workers.Post([objects = std::move(objects)] {});
        }
    }
    // A holder that has died meanwhile was cleared from the table perhaps before it was counted there.
    void DropIfDead(EndpointId holder);
    // True when the process that claims the endpoint listens there.
    bool IsEndpointOf(EndpointId claimed, const Credentials& credentials) const;
    // Takes the peer out; false when it is not known any more.
    bool Remove(const sptr<Peer>& peer);

    const Parts parts_;
    Mutex mutex_{LockRank::PeerDirectory};
    std::unordered_map<EndpointId, sptr<Peer>> peers_ VEXA_GUARDED_BY(mutex_);
    // Endpoints that have died, the latest last: what still arrives of them is dead from the start.
    std::unordered_set<EndpointId> dead_ VEXA_GUARDED_BY(mutex_);
    std::deque<EndpointId> deadOrder_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
