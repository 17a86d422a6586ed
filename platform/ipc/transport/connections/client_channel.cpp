// SPDX-License-Identifier: Apache-2.0
#include "client_channel.h"

#include <sys/socket.h>

#include <algorithm>

#include "frame_reader.h"
#include "ipc_log.h"
#include "parcel_access.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

// Brings in the rest of a reply of which `have` bytes have arrived.
int32_t ReceiveRest(int fd, MessageParcel& reply, const FrameHeader& header, size_t have, Deadline deadline)
{
    const size_t total = kHeaderBytes + BodyBytes(header);
    if (have < total) {
        if (!ParcelAccess::ReserveTotal(reply, total - kHeaderBytes)) {
            return IPC_FAILED;
        }
        size_t moved = 0;
        const size_t missing = total - have;
        const Transfer result = ReceiveMore(fd, ParcelAccess::Storage(reply) + have, missing, missing, deadline, moved);
        if (result != Transfer::DONE) {
            return result == Transfer::WOULD_BLOCK ? IPC_TIMED_OUT : IPC_CONNECTION_LOST;
        }
    }
    ParcelAccess::SetSize(reply, header.bytes);
    return IPC_OK;
}

}  // namespace

// Whatever came before, opening the channel and sending included, has taken its part of the time.
void ClientChannel::LimitReceive(Deadline deadline)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    if (receiveTimeout_ == milliseconds(0) || receiveTimeout_ < left || receiveTimeout_ > left + kReceiveSlack) {
        receiveTimeout_ = std::max(left, milliseconds(1));
        SetReceiveTimeout(fd_.Get(), receiveTimeout_);
    }
}

int32_t ClientChannel::Exchange(
    MessageParcel& frame, size_t frameBytes, MessageParcel& reply, Deadline deadline, Reached& reached)
{
    reached = Reached::NOTHING;
    Transfer result = SendAll(fd_.Get(), ParcelAccess::Storage(frame), frameBytes, deadline);
    if (result != Transfer::DONE) {
        return result == Transfer::WOULD_BLOCK ? IPC_TIMED_OUT : IPC_CONNECTION_LOST;
    }
    reached = Reached::SENT;
    ParcelAccess::Clear(reply);
    LimitReceive(deadline);
    size_t have = 0;
    result = ReceiveAtLeast(fd_.Get(), ParcelAccess::Storage(reply), kHeaderBytes, kFirstRead, deadline, have);
    if (result != Transfer::DONE) {
        if (result != Transfer::WOULD_BLOCK && have == 0 && !used_) {
            reached = Reached::TURNED_AWAY;
        }
        return result == Transfer::WOULD_BLOCK ? IPC_TIMED_OUT : IPC_CONNECTION_LOST;
    }
    used_ = true;
    const FrameHeader header = HeaderOf(reply);
    if (!IsSound(header) || header.kind != FrameKind::REPLY || have > kHeaderBytes + BodyBytes(header)) {
        IPC_LOGE("malformed reply, connection closed");
        return IPC_CONNECTION_LOST;
    }
    return ReceiveRest(fd_.Get(), reply, header, have, deadline);
}

void ClientChannel::AcknowledgeObjects()
{
    const FrameHeader header = MakeHeader(FrameKind::REPLY_ACK);
    size_t moved = 0;
    SendNow(fd_.Get(), &header, sizeof(header), moved);
}

ClientChannel ClientChannels::TakeIdle()
{
    MutexLock lock(mutex_);
    if (idle_.empty()) {
        return ClientChannel();
    }
    const std::thread::id self = std::this_thread::get_id();
    const auto own =
        std::find_if(idle_.rbegin(), idle_.rend(), [&](const ClientChannel& idle) { return idle.user_ == self; });
    if (own != idle_.rend()) {
        std::swap(*own, idle_.back());
    }
    ClientChannel channel = std::move(idle_.back());
    idle_.pop_back();
    EnterLocked(channel);
    return channel;
}

void ClientChannels::EnterLocked(ClientChannel& channel)
{
    channel.user_ = std::this_thread::get_id();
    inUse_.push_back(channel.Fd());
}

ClientChannel ClientChannels::Open(UniqueFd fd, EndpointId self, const ChannelKey& key)
{
    ClientChannel channel(std::move(fd));
    const HelloFrame hello = MakeHello(FrameKind::HELLO, ConnectionUse::CHANNEL, self, key);
    const Deadline deadline = std::chrono::steady_clock::now() + kConnectWait;
    if (SendAll(channel.Fd(), &hello, sizeof(hello), deadline) != Transfer::DONE) {
        return ClientChannel();
    }
    MutexLock lock(mutex_);
    if (closed_) {
        return ClientChannel();
    }
    EnterLocked(channel);
    return channel;
}

void ClientChannels::Return(ClientChannel channel)
{
    MutexLock lock(mutex_);
    inUse_.erase(std::remove(inUse_.begin(), inUse_.end(), channel.Fd()), inUse_.end());
    if (!closed_ && idle_.size() < kMostIdle) {
        idle_.push_back(std::move(channel));
    }
}

void ClientChannels::Lose(const ClientChannel& channel)
{
    MutexLock lock(mutex_);
    inUse_.erase(std::remove(inUse_.begin(), inUse_.end(), channel.Fd()), inUse_.end());
}

void ClientChannels::Close()
{
    std::vector<ClientChannel> idle;
    MutexLock lock(mutex_);
    closed_ = true;
    idle.swap(idle_);
    // Whoever waits on one is woken by its end; that thread closes it.
    for (const int fd : inUse_) {
        shutdown(fd, SHUT_RDWR);
    }
}

}  // namespace VEXA::ipc
