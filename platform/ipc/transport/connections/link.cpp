// SPDX-License-Identifier: Apache-2.0
#include "link.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <utility>

#include "peer_log.h"
#include "transport/limits.h"

namespace VEXA::ipc {

Link::Link(Connection connection, Reactor& reactor)
    : EventHandler(std::move(connection.fd)), reactor_(reactor), connection_(std::move(connection))
{}

bool Link::Send(const void* frame, size_t size)
{
    MutexLock lock(outMutex_);
    if (outClosed_) {
        return false;
    }
    size_t sent = 0;
    if (out_.empty()) {
        const Transfer result = SendNow(Fd(), frame, size, sent);
        if (sent == size) {
            return true;
        }
        if (result == Transfer::END) {
            EndLocked();
        }
        if (result == Transfer::END || result == Transfer::FAILED) {
            return false;
        }
        reactor_.Change(Fd(), Reactor::kReadEvents | EPOLLOUT);
    } else if (out_.size() - outSent_ + size > kMostUnread) {
        IPC_LOGE_OF(&Who(), "process %{public}d reads nothing any more, link closed", Who().pid);
        EndLocked();
        return false;
    }
    if (outSent_ > out_.size() / 2) {
        out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(outSent_));
        outSent_ = 0;
    }
    const uint8_t* const bytes = static_cast<const uint8_t*>(frame);
    // A part may have gone already, and a destructor may be the sender.
    const bool isKept =
        RetryForMemory([&]() VEXA_NO_THREAD_SAFETY_ANALYSIS { out_.insert(out_.end(), bytes + sent, bytes + size); });
    if (!isKept) {
        EndLocked();
    }
    return isKept;
}

bool Link::WaitFlushed(Deadline deadline)
{
    MutexLock lock(outMutex_);
    return flushed_.WaitUntil(
        outMutex_, deadline, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return out_.empty() || outClosed_; });
}

void Link::Flush()
{
    MutexLock lock(outMutex_);
    size_t sent = 0;
    Transfer result = Transfer::DONE;
    while (outSent_ < out_.size() && result == Transfer::DONE) {
        result = SendNow(Fd(), out_.data() + outSent_, out_.size() - outSent_, sent);
        outSent_ += sent;
    }
    if (outSent_ == out_.size()) {
        std::vector<uint8_t>().swap(out_);
        outSent_ = 0;
        reactor_.Change(Fd(), Reactor::kReadEvents);
        flushed_.NotifyAll();
    }
    if (result == Transfer::END) {
        EndLocked();
    }
}

// Shuts the socket down, so that the reactor reads its end even if the peer has only stopped receiving.
void Link::EndLocked()
{
    outClosed_ = true;
    flushed_.NotifyAll();
    shutdown(Fd(), SHUT_RDWR);
}

void Link::Shutdown()
{
    MutexLock lock(outMutex_);
    EndLocked();
}

void Link::OnEvents(uint32_t events)
{
    if ((events & EPOLLOUT) != 0 && !closed_) {
        Flush();
    }
    if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        const bool hasWaited = parked_ != nullptr;
        ReadFrames(kFairShare, UINT64_MAX);
        // The peer has sent something behind a frame that waits, or has ended.
        if (hasWaited && parked_ != nullptr && WaitReadable(Fd(), {})) {
            Close((events & EPOLLRDHUP) == 0);
        }
    }
}

void Link::TakeStock()
{
    int queued = 0;
    if (!closed_ && ioctl(Fd(), FIONREAD, &queued) == 0) {
        due_ = reader_.Received() + static_cast<uint64_t>(queued);
    }
}

bool Link::Drain()
{
    return ReadFrames(SIZE_MAX, due_);
}

void Link::Resume()
{
    if (parked_ != nullptr || reader_.HasAhead()) {
        ReadFrames(kFairShare, UINT64_MAX);
    }
}

bool Link::ReadFrames(size_t frames, uint64_t bytes)
{
    // Reading a frame may ask for all links to be drained, this one included.
    if (reading_ || closed_) {
        return false;
    }
    const Raised reading(reading_);
    bool hasMoved = false;
    for (size_t count = 0; parked_ != nullptr || reader_.HasAhead() || (count < frames && reader_.Received() < bytes);
         ++count) {
        if (parked_ == nullptr) {
            const FrameReader::Result result = reader_.Read(Fd(), *scratch_, parked_);
            FrameHeader header;
            if (result == FrameReader::Result::LARGE && reader_.HasHeader(header) && AdmitOnce(header)) {
                continue;
            }
            if (result == FrameReader::Result::PARTIAL && (!reader_.HasHeader(header) || AdmitOnce(header))) {
                break;
            }
            if (result != FrameReader::Result::FRAME) {
                Close(result != FrameReader::Result::END);
                hasMoved = true;
                break;
            }
        }
        // Where there is no memory to deal with the frame, it stays for Resume, as one that waits does.
        const FrameHeader header = HeaderOf(*parked_);
        const Verdict verdict = AdmitOnce(header) ? Handle(header, *parked_) : Verdict::CLOSE;
        if (verdict == Verdict::WAIT) {
            if (reactor_.Settling()) {
                reactor_.ResumeLater();
            }
            break;
        }
        parked_ = nullptr;
        hasMoved = true;
        if (verdict == Verdict::CLOSE || verdict == Verdict::END) {
            Close(verdict == Verdict::CLOSE);
        }
        if (verdict != Verdict::GO_ON) {
            break;
        }
        admitted_ = false;
        reader_.Done();
    }
    return hasMoved;
}

bool Link::AdmitOnce(const FrameHeader& header)
{
    admitted_ = admitted_ || Admit(header);
    return admitted_;
}

std::unique_ptr<MessageParcel> Link::TakeFrame(MessageParcel& frame)
{
    return &frame == scratch_.get() ? std::exchange(scratch_, std::make_unique<MessageParcel>()) : reader_.TakeOwn();
}

Connection Link::GiveUp()
{
    reactor_.Remove(Fd());
    closed_ = true;
    connection_.fd = std::move(fd_);
    return std::move(connection_);
}

void Link::Close(bool malformed)
{
    if (closed_) {
        return;
    }
    closed_ = true;
    if (malformed) {
        IPC_LOGE_OF(&Who(), "malformed frame from process %{public}d, connection closed", Who().pid);
    }
    const sptr<Link> self(this);
    reactor_.Remove(Fd());
    MutexLock lock(outMutex_);
    outClosed_ = true;
    flushed_.NotifyAll();
    fd_.Reset();
    lock.Unlock();
    connection_.slot.reset();
    OnEnd();
}

}  // namespace VEXA::ipc
