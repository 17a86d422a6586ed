// SPDX-License-Identifier: Apache-2.0
#include "one_way_queues.h"

#include "call_context.h"
#include "process_life.h"

namespace VEXA::ipc {

void OneWayQueues::Add(Request& request)
{
    const IRemoteObject* const object = request.object.GetRefPtr();
    MutexLock lock(mutex_);
    const auto [queue, isNew] = queues_.try_emplace(object);
    try {
        queue->second.push_back(std::move(request));
    } catch (const std::bad_alloc&) {
        if (isNew) {
            queues_.erase(queue);
        }
        throw;
    }
    lock.Unlock();
    if (isNew) {
        workers_.Post([this, object] { RunQueue(object); });
    }
}

void OneWayQueues::RunQueue(const IRemoteObject* object)
{
    while (!ProcessLife::Exiting()) {
        MutexLock lock(mutex_);
        const auto queue = queues_.find(object);
        if (queue->second.empty()) {
            queues_.erase(queue);
            return;
        }
        const Peer& sender = *queue->second.front().sender;
        if (!workers_.Begin(ProcessNumber(sender.Who(), sender.Id()), [this, object] { RunQueue(object); })) {
            return;
        }
        Request request = std::move(queue->second.front());
        queue->second.pop_front();
        lock.Unlock();
        MessageParcel reply;
        MessageOption option(MessageOption::TF_ASYNC);
        CarryOut(*request.object, request.code, *request.data, reply, option, request.sender->Who());
        workers_.Done();
    }
}

void OneWayQueues::Trim(EndpointId dead)
{
    // Ends on a worker: with it go references to objects, whose code must not hold up the reactor.
    const auto dropped = std::make_shared<std::deque<Request>>();
    uint64_t left = kMostLastWords;
    MutexLock lock(mutex_);
    for (auto& [object, queue] : queues_) {
        bool isOver = false;
        std::deque<Request> kept;
        for (Request& request : queue) {
            const bool isLast = request.sender->Id() == dead;
            isOver = isOver || (isLast && request.data->GetDataSize() > left);
            left -= isLast && !isOver ? request.data->GetDataSize() : 0;
            (isLast && isOver ? *dropped : kept).push_back(std::move(request));
        }
        queue.swap(kept);
    }
    lock.Unlock();
    if (!dropped->empty()) {
        workers_.Post([dropped] {});
    }
}

}  // namespace VEXA::ipc
