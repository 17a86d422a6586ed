// SPDX-License-Identifier: Apache-2.0
#include "one_way_queues.h"

#include "call_context.h"
#include "process_life.h"

namespace VEXA::ipc {

OneWayQueues::Arrival OneWayQueues::Prepare(Request request)
{
    Queues queue;
    queue.try_emplace(request.object.GetRefPtr());
    Arrival arrival;
    arrival.request.push_back(std::move(request));
    arrival.queue = queue.extract(queue.begin());
    return arrival;
}

void OneWayQueues::Add(Arrival arrival)
{
    const IRemoteObject* const object = arrival.queue.key();
    MutexLock lock(mutex_);
    const auto [queue, isNew, spare] = queues_.insert(std::move(arrival.queue));
    queue->second.splice(queue->second.end(), arrival.request);
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
        CarryOut(*request.object, request.code, *request.data, reply, option, request.sender->Who(), request.number);
        workers_.Done();
    }
}

void OneWayQueues::Trim(EndpointId dead)
{
    std::list<Request> dropped;
    uint64_t left = kMostLastWords;
    MutexLock lock(mutex_);
    for (auto& [object, queue] : queues_) {
        bool isOver = false;
        for (auto next = queue.begin(); next != queue.end();) {
            const auto request = next++;
            const bool isLast = request->sender->Id() == dead;
            isOver = isOver || (isLast && request->data->GetDataSize() > left);
            left -= isLast && !isOver ? request->data->GetDataSize() : 0;
            if (isLast && isOver) {
                dropped.splice(dropped.end(), queue, request);
            }
        }
    }
    lock.Unlock();
    workers_.Drop(std::move(dropped));
}

}  // namespace VEXA::ipc
