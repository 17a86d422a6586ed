// SPDX-License-Identifier: Apache-2.0
// The serving end of a channel: brings in the requests of one other process, one at a time, and sends the replies.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

#include "byte_budget.h"
#include "connection_counts.h"
#include "frame_reader.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "worker_pool.h"

namespace VEXA::ipc {

class ServerChannels;

// Answers the requests of a channel, and lives as long as the connection. One thread at a time.
class RequestHandler {
public:
    virtual ~RequestHandler() = default;
    // Is told that the peer has sent a frame, and so has read the last reply.
    virtual void OnLastReplyRead() = 0;
    // Carries out the request and leaves the reply, with its header, in `reply`; false when the peer is to be served no
    // more. Throws std::bad_alloc only before anything has been carried out, and is then called again.
    virtual bool Answer(MessageParcel& request, const FrameHeader& header, MessageParcel& reply) = 0;
};

// All workers watch a channel, edge-triggered, so two may be told of it at the same time: the first to take the channel
// serves it, and goes round again for each of the others. It then waits by itself for the next request, for a while:
// the threads of a caller and of its worker, woken by each other only, end up on one processor, which is many times
// cheaper than waking an idle one. A channel is never freed but used again for a later connection, so that a worker
// that comes late finds at worst nothing to do.
class ServerChannel : public Served {
public:
    explicit ServerChannel(ServerChannels& home);
    // Reads and answers all requests that have arrived, and those that follow them closely.
    void Serve() override;
    // Closes a channel on which a frame has been coming in, or a reply going out, for too long.
    void CloseIfStalled(Deadline now);

private:
    friend class ServerChannels;
    enum State : uint32_t { FREE, IDLE, BUSY, BUSY_AGAIN };

    bool Enter();
    void Leave();
    // For the thread that has entered. It stays inside, and another one goes on for it, where ServeArrived is false.
    void ServeOn();
    bool ServeArrived();
    bool ServeRequests(const std::function<void()>& later);
    bool SetCharge(uint64_t bytes, const std::function<void()>& later = nullptr);
    int Fd() const { return connection_.fd.Get(); }
    bool IsOpen() const { return static_cast<bool>(connection_.fd); }
    void WatchAgain();
    // Both return true when all output has gone, so that the next request may be read.
    bool AnswerFrame(MessageParcel& frame);
    bool FlushOutput();
    void SetStalled(bool stalled);
    void Close(bool malformed);

    ServerChannels& home_;
    std::atomic<uint32_t> state_{FREE};
    // The rest belongs to the thread that has made the state BUSY.
    Connection connection_;
    std::unique_ptr<RequestHandler> handler_;
    FrameReader reader_;
    std::vector<uint8_t> output_;
    size_t outputSent_ = 0;
    bool watched_ = false;    // by all workers
    bool readOn_ = false;     // more may be there to read, without a further edge
    Reactor::Ticks stalled_;  // inside a frame, or with a reply that is not read
    Deadline stalledSince_{};
    ByteBudget::Charge charge_;  // of a large frame that has begun, or of a reply that waits
};

// All server channels of the process.
class ServerChannels {
public:
    ServerChannels(WorkerPool& workers, Reactor& reactor, ByteBudget& bytes)
        : workers_(workers), reactor_(reactor), bytes_(bytes)
    {}

    // Serves an accepted channel from now on, beginning with what the reader holds already. Where memory is short it
    // throws, and the connection stays with its owner.
    void Adopt(const GiveUpConnection& giveUp, std::unique_ptr<RequestHandler> handler, const FrameReader& reader);
    void CloseStalled(Deadline now);

private:
    friend class ServerChannel;
    void Recycle(ServerChannel* channel);

    WorkerPool& workers_;
    Reactor& reactor_;
    ByteBudget& bytes_;

    Mutex mutex_{LockRank::ServerChannels};
    std::deque<ServerChannel> channels_ VEXA_GUARDED_BY(mutex_);  // a deque: elements never move
    std::vector<ServerChannel*> free_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
