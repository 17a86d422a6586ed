// SPDX-License-Identifier: Apache-2.0
// Queues the one-way requests that have arrived, for each object, so that they run in order and one at a time.
#pragma once

#include <deque>
#include <memory>
#include <unordered_map>

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
    };

    // Takes the request, unless it throws std::bad_alloc: the request is as it was then.
    void Add(Request& request);
    // Leaves of the requests of a process that has died, for each object, the first ones: kMostLastWords in all.
    void Trim(EndpointId dead);

private:
    void RunQueue(const IRemoteObject* object);

    WorkerPool& workers_;
    Mutex mutex_{LockRank::OneWayQueues};
    // An object has a queue here while one of its requests runs or waits.
    std::unordered_map<const IRemoteObject*, std::deque<Request>> queues_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
