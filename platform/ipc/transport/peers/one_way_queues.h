// SPDX-License-Identifier: Apache-2.0
// Queues the one-way requests that have arrived, for each object, so that they run in order and one at a time.
#pragma once

#include <list>
#include <map>
#include <memory>

#include "peer.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/message_parcel.h"
#include "worker_pool.h"

namespace VEXA::ipc {

class OneWayQueues {
public:
    explicit OneWayQueues(WorkerPool& workers) : workers_(workers) {}

    struct Request {
        sptr<IRemoteObject> object;
        sptr<Peer> sender;
        OneWayDebt::Charge charge;  // of the sender's debt, until the request is done
        uint32_t code;
        std::unique_ptr<MessageParcel> data;
        uint64_t number;
    };

    // A request with the memory that its queue may need: only Prepare may throw.
    using Queues = std::map<const IRemoteObject*, std::list<Request>>;
    struct Arrival {
        std::list<Request> request;
        Queues::node_type queue;
    };
    static Arrival Prepare(Request request);
    void Add(Arrival arrival);
    // Leaves of the requests of a process that has died, for each object, the first ones: kMostLastWords in all. Needs
    // no memory.
    void Trim(EndpointId dead);

private:
    void RunQueue(const IRemoteObject* object);

    WorkerPool& workers_;
    Mutex mutex_{LockRank::OneWayQueues};
    // An object has a queue here while one of its requests runs or waits.
    Queues queues_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
