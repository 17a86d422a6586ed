// SPDX-License-Identifier: Apache-2.0
// Puts the parts of a process's transport together.
#pragma once

#include <atomic>
#include <utility>

#include "connection_counts.h"
#include "context_link.h"
#include "context_publisher.h"
#include "death_notifier.h"
#include "local_endpoint.h"
#include "object_table.h"
#include "one_way_queues.h"
#include "peer_directory.h"
#include "reactor.h"
#include "runtime_watch.h"
#include "server_channel.h"
#include "session.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// Each part gets what it needs from the others here, and here only. A transport is never destroyed once it has started,
// as its threads may outlive main. All operations may be called from any thread.
class Transport {
public:
    // `startThread` starts the transport's threads.
    explicit Transport(const ThreadStarter& startThread);

    // Makes the endpoint and starts the reactor. False, with errno, when that can't be done.
    bool Start();
    // For the exit handler: takes the sockets along.
    void Leave();
    // Lets other processes call the object without having been handed it.
    PublishResult Publish(
        const sptr<IRemoteObject>& object, std::function<void()> onReplaced = [] {});

    EndpointId Id() const { return id_; }
    ObjectTable& Objects() { return objects_; }
    PeerDirectory& Peers() { return peers_; }
    Reactor& Loop() { return reactor_; }
    WorkerPool& Workers() { return workers_; }
    DeathNotifier& Deaths() { return deaths_; }
    ContextLink& Context() { return contextLink_; }
    RuntimeWatch& Watch() { return watch_; }

private:
    void Accept(Connection connection);
    PeerDirectory::Parts DirectoryParts();
    void OnDeath(EndpointId dead);

    const EndpointId id_;
    std::atomic<bool> isPublishing_{false};
    ObjectTable objects_;
    Reactor reactor_;
    ByteBudget bytes_;  // outlives the tasks of the workers
    WorkerPool workers_;
    DeathNotifier deaths_;
    ConnectionCounts connections_;
    ServerChannels channels_;
    OneWayQueues oneWays_;
    LocalEndpoint endpoint_;
    PeerDirectory peers_;
    const Session::Parts sessions_;
    ContextLink contextLink_;
    LocalEndpoint contextSocket_;
    ContextPublisher publisher_;
    RuntimeWatch watch_;
};

}  // namespace VEXA::ipc
