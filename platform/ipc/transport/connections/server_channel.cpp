// SPDX-License-Identifier: Apache-2.0
#include "server_channel.h"

#include <utility>

#include "parcel_access.h"
#include "peer_log.h"
#include "process_life.h"
#include "transport/limits.h"

namespace VEXA::ipc {

ServerChannel::ServerChannel(ServerChannels& home) : home_(home), charge_(home.bytes_) {}

bool ServerChannel::Enter()
{
    uint32_t state = state_.load(std::memory_order_relaxed);
    uint32_t next;
    do {
        if (state == FREE || state == BUSY_AGAIN) {
            return false;
        }
        next = state == IDLE ? BUSY : BUSY_AGAIN;
    } while (!state_.compare_exchange_weak(state, next, std::memory_order_acq_rel, std::memory_order_relaxed));
    return next == BUSY;
}

void ServerChannel::Leave()
{
    for (;;) {
        // CloseIfStalled may have kept out the worker that came for the first request, so it too comes here unwatched.
        if (IsOpen() && !watched_) {
            WatchAgain();
        }
        if (!IsOpen()) {
            home_.Recycle(this);
            return;
        }
        uint32_t state = BUSY;
        if (state_.compare_exchange_strong(state, IDLE, std::memory_order_acq_rel)) {
            return;
        }
        state_.store(BUSY, std::memory_order_relaxed);
        if (!ServeArrived()) {
            return;
        }
    }
}

void ServerChannel::Serve()
{
    if (Enter()) {
        ServeOn();
    }
}

void ServerChannel::ServeOn()
{
    if (!ServeArrived()) {
        return;
    }
    WorkerPool& workers = home_.workers_;
    while (IsOpen() && !stalled_ && output_.empty() && workers.OthersWait()) {
        if (std::exchange(watched_, false)) {
            workers.Unwatch(Fd());
        }
        // This worker is about to see whatever another one was told of.
        state_.store(BUSY, std::memory_order_relaxed);
        if (!WaitReadable(Fd(), kFollowLimit) || ProcessLife::Exiting()) {
            break;
        }
        if (!ServeArrived()) {
            return;
        }
    }
    Leave();
}

// Something that has arrived meanwhile is an edge for the workers too.
void ServerChannel::WatchAgain()
{
    watched_ = home_.workers_.Watch(Fd(), !output_.empty(), *this);
    if (!watched_) {
        IPC_LOGE_OF(&connection_.who, "no room to watch a connection");
        Close(false);
    }
}

bool ServerChannel::ServeArrived()
{
    if (!IsOpen()) {
        return true;
    }
    const auto later = [this] {
        SetStalled(false);  // the wait was not the peer's doing
        ServeOn();
    };
    if (!home_.workers_.Begin(static_cast<uint64_t>(connection_.who.pid), later)) {
        return false;
    }
    const bool isDone = ServeRequests(later);
    home_.workers_.Done();
    return isDone;
}

bool ServerChannel::SetCharge(uint64_t bytes, const std::function<void()>& later)
{
    const ByteBudget::Account account{static_cast<uint64_t>(connection_.who.pid), connection_.who.uid};
    return bytes == charge_.Bytes() || charge_.Set(account, bytes, later);
}

bool ServerChannel::ServeRequests(const std::function<void()>& later)
{
    // While a reply waits for the peer to read, its next request waits too.
    if (!output_.empty() && !FlushOutput()) {
        return true;
    }
    bool goOn = true;
    do {
        MessageParcel scratch;
        MessageParcel* frame = nullptr;
        FrameReader::Result result{};
        const auto read = [&] { return RetryForMemory([&] { result = reader_.Read(Fd(), scratch, frame); }); };
        bool isRead = read();
        while (isRead && result == FrameReader::Result::LARGE) {
            FrameHeader header;
            // Without room the rest of the frame stays with the kernel.
            bool hasRoom = true;
            const auto charge = [&] { hasRoom = SetCharge(kHeaderBytes + BodyBytes(header), later); };
            isRead = !reader_.HasHeader(header) || RetryForMemory(charge);
            if (!hasRoom) {
                return false;
            }
            isRead = isRead && read();
        }
        if (!isRead) {
            Close(false);
            return true;
        }
        if (result == FrameReader::Result::END || result == FrameReader::Result::MALFORMED) {
            Close(result == FrameReader::Result::MALFORMED);
            return true;
        }
        SetStalled(result == FrameReader::Result::PARTIAL && reader_.InFrame());
        if (result == FrameReader::Result::PARTIAL) {
            return true;
        }
        goOn = AnswerFrame(*frame);
        reader_.Done();
        // A request that came whole has emptied the socket: its sender waits for the reply, and whatever comes next
        // wakes a worker. An acknowledgement may have something right behind it.
    } while (goOn && (readOn_ || reader_.HasAhead() || state_.load(std::memory_order_relaxed) == BUSY_AGAIN));
    return true;
}

bool ServerChannel::AnswerFrame(MessageParcel& frame)
{
    const FrameHeader header = HeaderOf(frame);
    // The peer reads a reply before it sends anything else.
    handler_->OnLastReplyRead();
    readOn_ = header.kind == FrameKind::REPLY_ACK && BodyBytes(header) == 0;
    if (readOn_) {
        return true;
    }
    MessageParcel reply;
    const bool isRequest = header.kind == FrameKind::REQUEST;
    bool isAnswered = false;
    if (!isRequest || !RetryForMemory([&] { isAnswered = handler_->Answer(frame, header, reply); }) || !isAnswered) {
        Close(!isRequest);
        return false;
    }
    const uint8_t* const bytes = ParcelAccess::Storage(reply);
    const size_t size = kHeaderBytes + BodyBytes(HeaderOf(reply));
    size_t sent = 0;
    SendNow(Fd(), bytes, size, sent);
    if (sent < size && home_.workers_.OthersWait()) {
        // A peer that is reading is waited for: that saves the copy of the rest, and another worker's wake-up.
        SendAll(Fd(), bytes, size, std::chrono::steady_clock::now() + kFollowLimit, sent);
    }
    bool hasRoom = false;
    RetryForMemory([&] { hasRoom = SetCharge(size - sent); });
    if (!hasRoom) {
        IPC_LOGW_OF(
            &connection_.who, "no room for a reply to process %{public}d, connection closed", connection_.who.pid);
        Close(false);
        return false;
    }
    if (sent == size) {
        return true;
    }
    outputSent_ = 0;
    if (!RetryForMemory([&] { output_.assign(bytes + sent, bytes + size); })) {
        Close(false);
        return false;
    }
    WatchAgain();
    return IsOpen() && FlushOutput();
}

bool ServerChannel::FlushOutput()
{
    size_t sent = 0;
    Transfer outcome;
    do {
        outcome = SendNow(Fd(), output_.data() + outputSent_, output_.size() - outputSent_, sent);
        outputSent_ += sent;
    } while (outcome == Transfer::DONE && outputSent_ < output_.size());
    if (outputSent_ == output_.size()) {
        std::vector<uint8_t>().swap(output_);
        SetCharge(0);
        SetStalled(false);
        WatchAgain();
        return IsOpen();
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
    if (!stalled) {
        stalled_.reset();
    } else if (!stalled_) {
        stalledSince_ = std::chrono::steady_clock::now();
        stalled_ = home_.reactor_.NeedTicks();
    }
}

void ServerChannel::CloseIfStalled(Deadline now)
{
    uint32_t state = IDLE;
    if (!state_.compare_exchange_strong(state, BUSY, std::memory_order_acq_rel)) {
        return;
    }
    if (stalled_ && now - stalledSince_ > kStallLimit) {
        IPC_LOGW_OF(
            &connection_.who, "connection of process %{public}d has stalled and is closed", connection_.who.pid);
        Close(false);
    }
    Leave();
}

void ServerChannel::Close(bool malformed)
{
    if (malformed) {
        IPC_LOGE_OF(
            &connection_.who, "malformed frame from process %{public}d, connection closed", connection_.who.pid);
    }
    SetStalled(false);
    readOn_ = false;
    handler_.reset();
    reader_.Reset();
    SetCharge(0);
    std::vector<uint8_t>().swap(output_);
    if (std::exchange(watched_, false)) {
        home_.workers_.Unwatch(Fd());
    }
    connection_ = Connection();
}

void ServerChannels::Adopt(
    const GiveUpConnection& giveUp, std::unique_ptr<RequestHandler> handler, const FrameReader& reader)
{
    MutexLock lock(mutex_);
    if (free_.empty()) {
        free_.reserve(channels_.size() + 1);  // for Recycle, which must not fail
        channels_.emplace_back(*this);
        free_.push_back(&channels_.back());
    }
    ServerChannel* const channel = free_.back();
    free_.pop_back();
    lock.Unlock();
    channel->connection_ = giveUp();
    channel->handler_ = std::move(handler);
    channel->reader_.TakeAheadOf(reader);
    channel->state_.store(ServerChannel::IDLE, std::memory_order_release);
    workers_.Post([channel] { channel->Serve(); });
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
    MutexLock lock(mutex_);
    for (ServerChannel& channel : channels_) {
        all.push_back(&channel);
    }
    lock.Unlock();
    for (ServerChannel* channel : all) {
        channel->CloseIfStalled(now);
    }
}

}  // namespace VEXA::ipc
