// SPDX-License-Identifier: Apache-2.0
#include "one_way_queues.h"

#include "call_context.h"
#include "process_life.h"

namespace VEXA::ipc {

void OneWayQueues::Add(Request request)
{
    const IRemoteObject* const object = request.object.GetRefPtr();
    MutexLock lock(mutex_);
    const auto [queue, isNew] = queues_.try_emplace(object);
    queue->second.push_back(std::move(request));
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
        const Request request = std::move(queue->second.front());
        queue->second.pop_front();
        lock.Unlock();
        uint64_t frames = 0;
        uint64_t bytes = 0;
        if (request.sender->Debt().Leave(request.data->GetDataSize(), frames, bytes) && !request.sender->Dead()) {
            const FrameHeader ack = MakeHeader(FrameKind::ONE_WAY_ACK, frames, bytes);
            request.sender->SendOnLink(&ack, sizeof(ack));
        }
        MessageParcel reply;
        MessageOption option(MessageOption::TF_ASYNC);
        CarryOut(*request.object, request.code, *request.data, reply, option, request.sender->Who());
    }
}

}  // namespace VEXA::ipc
