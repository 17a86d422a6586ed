// SPDX-License-Identifier: Apache-2.0
#include "server_channel.h"

#include <utility>

#include "call_context.h"
#include "ipc_log.h"
#include "parcel_access.h"
#include "process.h"
#include "process_life.h"
#include "socket.h"
#include "vexa/ipc/message_option.h"

namespace VEXA::ipc {
namespace {

// How long a frame may take from its first byte to its last, and a reply to be read.
constexpr std::chrono::seconds kStallLimit{8};

// How long a worker waits for the next request of a channel that it has served. A caller that pauses for longer has let
// its processor sleep by then, and another channel that has become busy meanwhile need not wait longer for a worker.
constexpr std::chrono::milliseconds kFollowLimit{20};

}  // namespace

bool ServerChannel::Enter()
{
    uint32_t state = state_.load(std::memory_order_relaxed);
    for (;;) {
        if (state == FREE || state == BUSY_AGAIN) {
            return false;
        }
        const uint32_t next = state == IDLE ? BUSY : BUSY_AGAIN;
        if (state_.compare_exchange_weak(state, next, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return next == BUSY;
        }
    }
}

void ServerChannel::Leave()
{
    for (;;) {
        // Not only after serving: whoever looked for a stall may have been told of the first request meanwhile.
        if (fd_ && !watched_) {
            WatchAgain();
        }
        if (!fd_) {
            home_->Recycle(this);
            return;
        }
        uint32_t state = BUSY;
        if (state_.compare_exchange_strong(state, IDLE, std::memory_order_acq_rel)) {
            return;
        }
        state_.store(BUSY, std::memory_order_relaxed);
        ServeArrived();
    }
}

void ServerChannel::Serve()
{
    if (Enter()) {
        ServeArrived();
        ServeFollowing();
        Leave();
    }
}

void ServerChannel::ServeFollowing()
{
    WorkerPool& workers = IpcProcess::Get().Workers();
    while (IsBetweenRequests() && workers.OthersWait()) {
        if (std::exchange(watched_, false)) {
            workers.Unwatch(fd_.Get());
        }
        // Whatever another worker was told of, this one is about to see.
        state_.store(BUSY, std::memory_order_relaxed);
        if (!WaitReadable(fd_.Get(), kFollowLimit) || ProcessLife::Get().Exiting()) {
            break;
        }
        ServeArrived();
    }
}

// What has arrived meanwhile is an edge for the workers.
void ServerChannel::WatchAgain()
{
    watched_ = IpcProcess::Get().Workers().Watch(*this);
    if (!watched_) {
        IPC_LOGE("no room to watch a connection");
        Close(false);
    }
}

void ServerChannel::ServeArrived()
{
    // While a reply waits for the peer to read, its next request waits too.
    if (!output_.empty() && !FlushOutput()) {
        return;
    }
    bool goOn = true;
    do {
        MessageParcel scratch;
        MessageParcel* frame = nullptr;
        switch (reader_.Read(fd_.Get(), scratch, frame)) {
            case FrameReader::Result::FRAME:
                SetStalled(false);
                goOn = AnswerFrame(*frame);
                reader_.Done();
                break;
            case FrameReader::Result::PARTIAL:
                SetStalled(reader_.InFrame());
                return;
            case FrameReader::Result::END:
                Close(false);
                return;
            case FrameReader::Result::MALFORMED:
                Close(true);
                return;
        }
        // A request that came whole has emptied the socket: its sender waits for the reply, and whatever comes next
        // wakes a worker. An acknowledgement may have something right behind it.
    } while (goOn && (readOn_ || reader_.HasAhead() || state_.load(std::memory_order_relaxed) == BUSY_AGAIN));
}

// True when the reply has gone whole, so that the next request may be read.
bool ServerChannel::AnswerFrame(MessageParcel& frame)
{
    const FrameHeader header = HeaderOf(frame);
    // The peer reads a reply before it sends anything else.
    inFlight_.Commit();
    readOn_ = header.kind == FrameKind::REPLY_ACK && BodyBytes(header) == 0;
    if (readOn_) {
        return true;
    }
    if (header.kind != FrameKind::REQUEST || peer_->Dead()) {
        Close(header.kind != FrameKind::REQUEST);
        return false;
    }
    MessageParcel reply;
    const int32_t result = Dispatch(frame, header, reply);
    return SendReply(result, reply);
}

int32_t ServerChannel::Dispatch(MessageParcel& frame, const FrameHeader& header, MessageParcel& reply)
{
    ObjectTable& objects = IpcProcess::Get().Objects();
    sptr<IRemoteObject> object = objects.Find(header.target, peer_->Id());
    if (object == nullptr || header.objects > 0) {
        AwaitGrants(frame, header, *peer_);
        object = objects.Find(header.target, peer_->Id());
    }
    if (header.objects > 0 && !UnpackObjects(frame, header, peer_).isSound) {
        return IPC_REFUSED;
    }
    if (object == nullptr) {
        if (!std::exchange(hasRefused_, true)) {
            IPC_LOGE("process %{public}d called an object that it does not hold", peer_->Who().pid);
        }
        return IPC_REFUSED;
    }
    MessageOption option;
    return CarryOut(*object, header.code, frame, reply, option, peer_->Who());
}

bool ServerChannel::SendReply(int32_t result, MessageParcel& reply)
{
    FrameHeader header = MakeHeader(FrameKind::REPLY);
    if (result == IPC_OK || reply.GetDataSize() > 0) {
        header.bytes = static_cast<uint32_t>(reply.GetDataSize());
        if (!ParcelAccess::Objects(reply).empty() && !inFlight_.Pack(reply, *peer_, header)) {
            header.bytes = 0;
            result = IPC_FAILED;
        }
    }
    header.code = static_cast<uint32_t>(result);
    SetHeader(reply, header);
    const uint8_t* const bytes = ParcelAccess::Storage(reply);
    const size_t size = kHeaderBytes + BodyBytes(header);
    size_t sent = 0;
    const Transfer outcome = SendNow(fd_.Get(), bytes, size, sent);
    if (outcome == Transfer::END || outcome == Transfer::FAILED) {
        Close(false);
        return false;
    }
    if (sent < size) {
        output_.assign(bytes + sent, bytes + size);
        outputSent_ = 0;
        WatchAgain();
        return fd_ && FlushOutput();
    }
    return true;
}

// True when all of the output has gone.
bool ServerChannel::FlushOutput()
{
    size_t sent = 0;
    Transfer outcome;
    do {
        outcome = SendNow(fd_.Get(), output_.data() + outputSent_, output_.size() - outputSent_, sent);
        outputSent_ += sent;
    } while (outcome == Transfer::DONE && outputSent_ < output_.size());
    if (outputSent_ == output_.size()) {
        std::vector<uint8_t>().swap(output_);
        SetStalled(false);
        WatchAgain();
        return static_cast<bool>(fd_);
    }
    if (outcome == Transfer::WOULD_BLOCK) {
        SetStalled(true);
    } else {
        Close(false);
    }
    return false;
}

void ServerChannel::SetStalled(bool stalled)
{
    if (stalled == stalled_) {
        return;
    }
    stalled_ = stalled;
    Reactor& reactor = IpcProcess::Get().Loop();
    if (stalled) {
        stalledSince_ = std::chrono::steady_clock::now();
        if (reactor.Waiting().fetch_add(1) == 0) {
            reactor.Wake();
        }
    } else {
        reactor.Waiting().fetch_sub(1);
    }
}

void ServerChannel::CloseIfStalled(Deadline now)
{
    uint32_t state = IDLE;
    if (!state_.compare_exchange_strong(state, BUSY, std::memory_order_acq_rel)) {
        return;
    }
    if (stalled_ && now - stalledSince_ > kStallLimit) {
        IPC_LOGW("connection of process %{public}d has stalled and is closed", peer_->Who().pid);
        Close(false);
    }
    Leave();
}

void ServerChannel::Close(bool malformed)
{
    if (malformed) {
        IPC_LOGE("malformed frame from process %{public}d, connection closed", peer_->Who().pid);
    }
    SetStalled(false);
    hasRefused_ = false;
    readOn_ = false;
    inFlight_.Undo();
    reader_.Reset();
    std::vector<uint8_t>().swap(output_);
    IpcProcess& process = IpcProcess::Get();
    if (std::exchange(watched_, false)) {
        process.Workers().Unwatch(fd_.Get());
    }
    process.ForgetConnection(peer_->Who().uid);
    fd_.Reset();
    peer_.clear();
}

ServerChannel* ServerChannels::Open(UniqueFd fd, const sptr<Peer>& peer, const FrameReader& reader)
{
    MutexLock lock(mutex_);
    ServerChannel* channel;
    if (free_.empty()) {
        channel = &channels_.emplace_back();
        channel->home_ = this;
    } else {
        channel = free_.back();
        free_.pop_back();
    }
    channel->fd_ = std::move(fd);
    channel->peer_ = peer;
    channel->reader_.TakeAheadOf(reader);
    channel->state_.store(ServerChannel::IDLE, std::memory_order_release);
    return channel;
}

void ServerChannels::Recycle(ServerChannel* channel)
{
    MutexLock lock(mutex_);
    channel->state_.store(ServerChannel::FREE, std::memory_order_release);
    free_.push_back(channel);
}

void ServerChannels::CloseStalled(Deadline now)
{
    std::vector<ServerChannel*> all;
    {
        MutexLock lock(mutex_);
        for (ServerChannel& channel : channels_) {
            all.push_back(&channel);
        }
    }
    for (ServerChannel* channel : all) {
        channel->CloseIfStalled(now);
    }
}

}  // namespace VEXA::ipc
