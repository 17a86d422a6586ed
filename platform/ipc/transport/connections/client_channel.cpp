// SPDX-License-Identifier: Apache-2.0
#include "client_channel.h"

#include <sys/socket.h>

#include <algorithm>

#include "frame_reader.h"
#include "parcel_access.h"
#include "peer_log.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

int32_t ErrorOf(Transfer failed)
{
    return failed == Transfer::WOULD_BLOCK ? IPC_TIMED_OUT : IPC_CONNECTION_LOST;
}

}  // namespace

// Sets the socket's receive time-out to the time that is left after opening the channel and sending.
void ClientChannel::LimitReceive(Deadline deadline)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    if (receiveTimeout_ == milliseconds(0) || receiveTimeout_ < left || receiveTimeout_ > left + kReceiveSlack) {
        receiveTimeout_ = std::max(left, milliseconds(1));
        SetTimeout(Fd(), SO_RCVTIMEO, receiveTimeout_);
    }
}

int32_t ClientChannel::Exchange(
    MessageParcel& frame, size_t frameBytes, MessageParcel& reply, Deadline deadline, Reached& reached)
{
    reached = Reached::NOTHING;
    size_t sent = 0;
    Transfer result = SendAll(Fd(), ParcelAccess::Storage(frame), frameBytes, deadline, sent);
    if (result != Transfer::DONE) {
        return ErrorOf(result);
    }
    reached = Reached::SENT;
    ParcelAccess::Clear(reply);
    LimitReceive(deadline);
    // Replies on a channel are often alike: one that is as long as the last comes with one call.
    const size_t room = ParcelAccess::ReserveTotal(reply, lastReply_) ? std::max(kFirstRead, lastReply_) : kFirstRead;
    size_t have = 0;
    result = ReceiveAtLeast(Fd(), ParcelAccess::Storage(reply), kHeaderBytes, room, deadline, have);
    if (result != Transfer::DONE) {
        if (result != Transfer::WOULD_BLOCK && have == 0 && !used_) {
            reached = Reached::TURNED_AWAY;
        }
        return ErrorOf(result);
    }
    used_ = true;
    const FrameHeader header = HeaderOf(reply);
    const size_t total = kHeaderBytes + BodyBytes(header);
    if (!IsSound(header) || header.kind != FrameKind::REPLY || header.extra != HeaderOf(frame).extra || have > total) {
        const Credentials who = CredentialsOf(fd_);
        IPC_LOGE_OF(&who, "malformed reply from process %{public}d, connection closed", who.pid);
        return IPC_CONNECTION_LOST;
    }
    if (!ParcelAccess::ReserveTotal(reply, total - kHeaderBytes)) {
        return IPC_FAILED;
    }
    lastReply_ = total;
    result = have < total ? ReceiveMore(Fd(), ParcelAccess::Storage(reply), total, total, deadline, have) : result;
    if (result != Transfer::DONE) {
        return ErrorOf(result);
    }
    ParcelAccess::SetSize(reply, header.bytes);
    return IPC_OK;
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
    const auto own = std::ranges::find(idle_.rbegin(), idle_.rend(), std::this_thread::get_id(), &ClientChannel::user_);
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
    size_t sent = 0;
    if (SendAll(channel.Fd(), &hello, sizeof(hello), deadline, sent) != Transfer::DONE) {
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
    std::erase(inUse_, channel.Fd());
    if (!closed_ && idle_.size() < kMostIdle) {
        idle_.push_back(std::move(channel));
    }
}

void ClientChannels::Lose(const ClientChannel& channel)
{
    MutexLock lock(mutex_);
    std::erase(inUse_, channel.Fd());
}

void ClientChannels::CloseIdle()
{
    std::vector<ClientChannel> idle;
    MutexLock lock(mutex_);
    idle.swap(idle_);
}

void ClientChannels::Close()
{
    CloseIdle();
    MutexLock lock(mutex_);
    closed_ = true;
    // The end of a channel wakes the thread that waits on it, which then closes it.
    for (const int fd : inUse_) {
        shutdown(fd, SHUT_RDWR);
    }
}

}  // namespace VEXA::ipc
