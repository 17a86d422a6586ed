// SPDX-License-Identifier: Apache-2.0
// This process as a member of a runtime directory: its endpoint, its objects, its threads, and the processes it knows.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <unordered_map>
#include <unordered_set>

#include "context_watch.h"
#include "death_notifier.h"
#include "link.h"
#include "object_table.h"
#include "one_way_queues.h"
#include "peer.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "wire.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// One in a process, started by its first use and never destroyed: its threads may outlive main. Any thread, unless
// said otherwise.
class IpcProcess {
public:
    static IpcProcess& Get();

    // Brings up the endpoint and the reactor. False, with a log line the first time, when that can't be done.
    bool Start();

    EndpointId Id() const { return id_.load(std::memory_order_relaxed); }
    // Whether a process whose endpoint is not there has removed it itself. One that was there before the runtime
    // directory was made anew may be about to make its own again.
    bool MissingEndpointMeansExit() const;
    ObjectTable& Objects() { return objects_; }
    // Counts one more reference of a process to an object of this process, which the caller keeps alive; its number.
    ObjectId AddHolder(const sptr<IRemoteObject>& object, EndpointId holder);
    // Changes a process's count for an object of this process. An object that ends by it ends on a worker.
    void AdjustHolder(ObjectId id, EndpointId holder, int64_t difference);
    Reactor& Loop() { return reactor_; }
    WorkerPool& Workers() { return workers_; }
    DeathNotifier& Notifier() { return notifier_; }
    OneWayQueues& OneWays() { return oneWays_; }

    // The process with that endpoint, connected to now if it was not before. Where it can't be reached, or is known to
    // have died, a peer that is dead. Never waits.
    sptr<Peer> PeerAt(EndpointId id);
    // The same, null instead of connecting.
    sptr<Peer> KnownPeer(EndpointId id);
    // Whether the process with that endpoint is among those that are remembered as dead.
    bool HasDied(EndpointId id);

    // The publisher of the context object, null when there is none. Waits for its greeting, at most a second.
    sptr<Peer> ContextPeer();
    bool PublishContext(const sptr<IRemoteObject>& object);
    void WatchContext(std::function<void()> action);
    // Whether the publisher that was reached last lives.
    bool HasPublisher() const { return publisher_.load() != 0; }

    // For the reactor's thread:
    // The process that introduces itself on a link, answered there; null when it is not who it says.
    sptr<Peer> Greet(EndpointId claimed, const Credentials& credentials, const sptr<Link>& link);
    // A link of the process has ended.
    void Bury(const sptr<Peer>& peer);
    // Counts a connection of that user; false when it is one too many.
    bool AdmitConnection(uid_t user);
    void ForgetConnection(uid_t user);

private:
    IpcProcess() = default;
    bool StartLocked() VEXA_REQUIRES(startMutex_);
    sptr<Peer> GreetContext(Deadline deadline) VEXA_REQUIRES(contextMutex_);
    // Null when the reactor can't take it.
    sptr<EventHandler> Listen(UniqueFd listener);
    // The endpoint is in the runtime directory again if that was made anew since this process started.
    bool RenewEndpoint() VEXA_EXCLUDES(startMutex_);
    // A holder that has died meanwhile was cleared from the table perhaps before it was counted there.
    void DropIfDead(EndpointId holder);
    // Whether that process and user listens at the endpoint.
    bool IsEndpointOf(EndpointId claimed, const Credentials& credentials) const;
    void RemoveEndpointOf(const Peer& peer);
    bool PublishLocked(const sptr<IRemoteObject>& object) VEXA_REQUIRES(startMutex_);
    static void AtExit();

    std::atomic<EndpointId> id_{0};  // drawn at the start, so that a child of fork that starts by itself has its own
    ObjectTable objects_;
    Reactor reactor_;
    WorkerPool workers_;
    DeathNotifier notifier_;
    OneWayQueues oneWays_;

    Mutex startMutex_;
    std::atomic<bool> started_{false};
    bool threadsStarted_ VEXA_GUARDED_BY(startMutex_) = false;
    bool startFailed_ VEXA_GUARDED_BY(startMutex_) = false;
    bool publishing_ VEXA_GUARDED_BY(startMutex_) = false;
    UniqueFd publisherLock_ VEXA_GUARDED_BY(startMutex_);
    sptr<EventHandler> endpoint_ VEXA_GUARDED_BY(startMutex_);
    std::atomic<bool> endpointRenewed_{false};

    Mutex contextMutex_;  // held while connecting, so that concurrent first uses share one link
    sptr<Peer> context_ VEXA_GUARDED_BY(contextMutex_);
    std::atomic<uint64_t> contextFailures_{0};
    std::atomic<EndpointId> publisher_{0};  // 0: none, or a dead one
    ContextWatch contextWatch_{reactor_};

    Mutex peersMutex_;
    std::unordered_map<EndpointId, sptr<Peer>> peers_ VEXA_GUARDED_BY(peersMutex_);
    // Endpoints that have died, the latest last: what still arrives of them is dead from the start.
    std::unordered_set<EndpointId> dead_ VEXA_GUARDED_BY(peersMutex_);
    std::deque<EndpointId> deadOrder_ VEXA_GUARDED_BY(peersMutex_);

    Mutex connectionsMutex_;
    size_t connections_ VEXA_GUARDED_BY(connectionsMutex_) = 0;
    size_t refused_ VEXA_GUARDED_BY(connectionsMutex_) = 0;
    std::unordered_map<uid_t, size_t> connectionsOf_ VEXA_GUARDED_BY(connectionsMutex_);
};

// 64 random bits from the kernel, never 0.
uint64_t RandomNumber();

}  // namespace VEXA::ipc
