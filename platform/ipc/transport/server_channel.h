// SPDX-License-Identifier: Apache-2.0
// The serving end of a channel: requests of one other process, one at a time.
#pragma once

#include <atomic>
#include <deque>
#include <vector>

#include "frame_reader.h"
#include "object_transfer.h"
#include "peer.h"
#include "socket.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

class ServerChannels;

// Watched edge-triggered by all workers at once, so two may be told of it at the same time: the first to take the
// channel serves it, and goes round again for each of the others. The worker that has served it waits for its next
// request by itself for a while: the threads of a caller and of its worker, woken by each other only, end up on one
// processor, which is many times cheaper than waking an idle one. A channel is never freed but used again for a later
// connection, so that a worker that comes late finds at worst nothing to do.
class ServerChannel {
public:
    // Reads and answers all requests that have arrived, and those that follow them closely.
    void Serve();
    // Closes a channel on which a frame has been coming in, or a reply going out, for too long.
    void CloseIfStalled(Deadline now);
    int Fd() const { return fd_.Get(); }
    bool HasOutput() const { return !output_.empty(); }

private:
    friend class ServerChannels;
    enum State : uint32_t { FREE, IDLE, BUSY, BUSY_AGAIN };

    bool Enter();
    void Leave();
    void ServeArrived();
    void ServeFollowing();
    bool IsBetweenRequests() const { return fd_ && !stalled_ && output_.empty(); }
    void WatchAgain();
    bool AnswerFrame(MessageParcel& frame);
    int32_t Dispatch(MessageParcel& frame, const FrameHeader& header, MessageParcel& reply);
    bool SendReply(int32_t result, MessageParcel& reply);
    bool FlushOutput();
    void SetStalled(bool stalled);
    void Close(bool malformed);

    std::atomic<uint32_t> state_{FREE};
    // The rest belongs to the thread that has made the state BUSY.
    UniqueFd fd_;
    sptr<Peer> peer_;
    FrameReader reader_;
    ObjectTransfer inFlight_;  // the objects of the last reply, until it is known to have arrived
    std::vector<uint8_t> output_;
    size_t outputSent_ = 0;
    bool watched_ = false;     // by all workers
    bool readOn_ = false;      // there may be more to read without a further edge
    bool hasRefused_ = false;  // logged once a connection
    bool stalled_ = false;     // inside a frame, or with a reply that is not read
    Deadline stalledSince_{};
    ServerChannels* home_ = nullptr;
};

// All server channels of the process.
class ServerChannels {
public:
    ServerChannel* Open(UniqueFd fd, const sptr<Peer>& peer, const FrameReader& reader);
    void CloseStalled(Deadline now);

private:
    friend class ServerChannel;
    void Recycle(ServerChannel* channel);

    Mutex mutex_;
    std::deque<ServerChannel> channels_ VEXA_GUARDED_BY(mutex_);  // a deque: elements never move
    std::vector<ServerChannel*> free_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
