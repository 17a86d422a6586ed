// SPDX-License-Identifier: Apache-2.0
// Channels: connections on which this process sends requests, one at a time on each. A thread that sends takes a free
// one or opens another, so requests of several threads are under way at once and no reply waits behind another's.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "socket.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/message_parcel.h"
#include "wire.h"

namespace VEXA::ipc {

class ClientChannel {
public:
    ClientChannel() = default;
    explicit ClientChannel(UniqueFd fd) : fd_(std::move(fd)) {}

    explicit operator bool() const { return static_cast<bool>(fd_); }
    int Fd() const { return fd_.Get(); }

    // Says how far an exchange that failed has come.
    enum class Reached {
        NOTHING,      // the frame has not left whole
        SENT,         // the frame has left, and the other process will read it if it lives
        TURNED_AWAY,  // the frame has left on a connection that the other process closed without having used it
    };
    // Sends a frame whose header lies in the parcel's headroom, and receives the reply's frame into `reply`, until the
    // deadline. Returns 0, or an IpcError: the channel can't serve again then.
    int32_t Exchange(
        MessageParcel& frame, size_t frameBytes, MessageParcel& reply, Deadline deadline, Reached& reached);
    void AcknowledgeObjects();

private:
    friend class ClientChannels;

    void LimitReceive(Deadline deadline);

    UniqueFd fd_;
    std::thread::id user_;                         // the thread that took the channel last
    std::chrono::milliseconds receiveTimeout_{0};  // SO_RCVTIMEO as it is set
    size_t lastReply_ = 0;                         // bytes of the last reply's frame
    bool used_ = false;                            // has brought a reply
};

class ClientChannels {
public:
    // Makes a channel of a new connection to the process that has issued the key to `self`; without a value when that
    // process takes no greeting, or these channels are closed.
    ClientChannel Open(UniqueFd fd, EndpointId self, const ChannelKey& key);
    // Takes a channel that is free; without a value when there is none. The one that this thread used last comes first:
    // the other process keeps a thread waiting for it, and the scheduler has brought the two together.
    ClientChannel TakeIdle();
    // Brings back a channel that can serve again. A channel that can't is reported as lost before it is closed.
    void Return(ClientChannel channel);
    void Lose(const ClientChannel& channel);
    // Ends the channels that are kept for later.
    void CloseIdle();
    // Ends all channels, those in use too, and lets no new ones be kept.
    void Close();

private:
    void EnterLocked(ClientChannel& channel) VEXA_REQUIRES(mutex_);

    Mutex mutex_{LockRank::ClientChannels};
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    std::vector<ClientChannel> idle_ VEXA_GUARDED_BY(mutex_);
    std::vector<int> inUse_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
