// SPDX-License-Identifier: Apache-2.0
// Channels: connections on which this process sends requests, one at a time on each. A thread that sends takes a free
// one or opens another, so requests of several threads are under way at once and no reply waits behind another's.
#pragma once

#include <cstdint>
#include <algorithm>
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

    // Sends a frame whose header lies in the parcel's headroom, and receives the reply's frame into `reply`.
    // 0, or an IpcError. `sent` tells whether the frame has left whole.
    int32_t Exchange(MessageParcel& frame, size_t frameBytes, MessageParcel& reply, int32_t waitTime, bool& sent);
    void AcknowledgeObjects();

private:
    UniqueFd fd_;
    int32_t receiveTimeout_ = 0;  // what the socket is set to
};

class ClientChannels {
public:
    // A channel to the endpoint; without a value when it can't be opened.
    ClientChannel Take(EndpointId endpoint, const ChannelKey& key);
    // One that is free already, if there is.
    ClientChannel TakeIdle();
    // Brings back a channel that can serve again. One that can't is reported as lost before it is closed.
    void Return(ClientChannel channel);
    void Lose(const ClientChannel& channel);
    // Ends all channels, those in use too, and lets no new ones be kept.
    void Close();

private:
    static constexpr size_t kMostIdle = 16;

    Mutex mutex_;
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    std::vector<ClientChannel> idle_ VEXA_GUARDED_BY(mutex_);
    std::vector<int> inUse_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
