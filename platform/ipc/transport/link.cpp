// SPDX-License-Identifier: Apache-2.0
#include "link.h"

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "ipc_log.h"
#include "object_transfer.h"
#include "parcel_access.h"
#include "process.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::ipc {
namespace {

constexpr uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP;
// Frames read from one link before the others have their turn.
constexpr size_t kFairShare = 64;
// How long an accepted connection may take to say what it is for.
constexpr std::chrono::seconds kGreetLimit{5};
// What a peer may leave unread before it is given up. One-way requests are bounded before they come here, so this is
// room for them and for a lot of book-keeping.
constexpr size_t kMostUnread = 2 * kMaxQueuedOneWayBytes;

// Between a greeting's claim and its answer stands no wait, so this never runs out on a machine that works.
constexpr std::chrono::seconds kClaimLimit{10};
constexpr size_t kMostGrants = 1024;
// Objects of processes that are not there, in one one-way request.
constexpr size_t kMostUnreachable = 4;

struct HelloFrame {
    FrameHeader header;
    HelloBody body;
};

HelloFrame MakeHello(FrameKind kind, const ChannelKey& key = ChannelKey())
{
    HelloFrame hello{MakeHeader(kind), {kWireVersion, ConnectionUse::LINK, IpcProcess::Get().Id(), key}};
    hello.header.bytes = sizeof(HelloBody);
    return hello;
}

}  // namespace

sptr<Peer> Greeting::Wait(Deadline deadline)
{
    const auto answered = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return state_ == State::ANSWERED; };
    MutexLock lock(mutex_);
    if (!answered_.WaitUntil(mutex_, deadline, answered)) {
        if (state_ == State::OPEN) {
            state_ = State::ABANDONED;
        } else {
            answered_.WaitFor(mutex_, kClaimLimit, answered);
        }
    }
    return peer_;
}

bool Greeting::Claim()
{
    MutexLock lock(mutex_);
    if (state_ == State::OPEN) {
        state_ = State::CLAIMED;
    }
    return state_ == State::CLAIMED;
}

void Greeting::Answer(const sptr<Peer>& peer)
{
    MutexLock lock(mutex_);
    if (state_ != State::ABANDONED) {
        state_ = State::ANSWERED;
        peer_ = peer;
        answered_.NotifyAll();
    }
}

Link::Link(UniqueFd fd)
    : EventHandler(std::move(fd)),
      credentials_(CredentialsOf(fd_)),
      greetBy_(std::chrono::steady_clock::now() + kGreetLimit),
      accepted_(true),
      counted_(true),
      scratch_(std::make_unique<MessageParcel>()),
      waiting_(true)
{
    ++IpcProcess::Get().Loop().Waiting();
}

Link::Link(UniqueFd fd, const sptr<Peer>& peer)
    : EventHandler(std::move(fd)),
      credentials_(peer->Who()),
      accepted_(false),
      counted_(true),
      peer_(peer),
      scratch_(std::make_unique<MessageParcel>())
{
    const HelloFrame hello = MakeHello(FrameKind::HELLO);
    Send(&hello, sizeof(hello));
}

Link::Link(UniqueFd fd, const sptr<Greeting>& greeting)
    : EventHandler(std::move(fd)),
      credentials_(CredentialsOf(fd_)),
      accepted_(false),
      greeting_(greeting),
      scratch_(std::make_unique<MessageParcel>())
{
    const HelloFrame hello = MakeHello(FrameKind::HELLO);
    Send(&hello, sizeof(hello));
}

Link::~Link()
{
    StopWaiting();
}

void Link::StopWaiting()
{
    if (std::exchange(waiting_, false)) {
        --IpcProcess::Get().Loop().Waiting();
    }
}

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
        IpcProcess::Get().Loop().Change(Fd(), kReadEvents | EPOLLOUT);
    } else if (out_.size() - outSent_ + size > kMostUnread) {
        IPC_LOGE("process %{public}d reads nothing any more, link closed", credentials_.pid);
        EndLocked();
        return false;
    }
    if (outSent_ > out_.size() / 2) {
        out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(outSent_));
        outSent_ = 0;
    }
    const uint8_t* const bytes = static_cast<const uint8_t*>(frame);
    out_.insert(out_.end(), bytes + sent, bytes + size);
    return true;
}

bool Link::WaitFlushed(Deadline deadline)
{
    MutexLock lock(outMutex_);
    flushed_.WaitUntil(
        outMutex_, deadline, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return out_.empty() || outClosed_; });
    return out_.empty() || outClosed_;
}

void Link::FlushLocked()
{
    size_t sent = 0;
    Transfer result = Transfer::DONE;
    while (outSent_ < out_.size() && result == Transfer::DONE) {
        result = SendNow(Fd(), out_.data() + outSent_, out_.size() - outSent_, sent);
        outSent_ += sent;
    }
    if (outSent_ == out_.size()) {
        std::vector<uint8_t>().swap(out_);
        outSent_ = 0;
        IpcProcess::Get().Loop().Change(Fd(), kReadEvents);
        flushed_.NotifyAll();
    }
    if (result == Transfer::END) {
        EndLocked();
    }
}

// The reactor reads the end then, also of a peer that has shut down only what it receives.
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
        MutexLock lock(outMutex_);
        if (!out_.empty()) {
            FlushLocked();
        }
    }
    if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        ReadFrames(kFairShare, UINT64_MAX);
    }
}

void Link::OnTick(Deadline now)
{
    if (waiting_ && now > greetBy_) {
        Close(false);
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
    if (parked_ != nullptr) {
        ReadFrames(kFairShare, UINT64_MAX);
    }
}

bool Link::ReadFrames(size_t frames, uint64_t bytes)
{
    // Reading a frame may ask for all links to be drained, this one included.
    if (reading_ || closed_) {
        return false;
    }
    reading_ = true;
    bool hasMoved = false;
    for (size_t count = 0; parked_ != nullptr || reader_.HasAhead() || (count < frames && reader_.Received() < bytes);
         ++count) {
        MessageParcel* frame = std::exchange(parked_, nullptr);
        if (frame == nullptr) {
            const FrameReader::Result result = reader_.Read(Fd(), *scratch_, frame);
            FrameHeader header;
            if (result == FrameReader::Result::PARTIAL && (!reader_.HasHeader(header) || Admit(header))) {
                break;
            }
            if (result != FrameReader::Result::FRAME) {
                Close(result != FrameReader::Result::END);
                hasMoved = true;
                break;
            }
        }
        const FrameHeader header = HeaderOf(*frame);
        const Verdict verdict = Admit(header) ? Handle(header, frame) : Verdict::CLOSE;
        if (verdict == Verdict::WAIT) {
            parked_ = frame;
            IpcProcess::Get().Loop().ResumeLater();
            break;
        }
        hasMoved = true;
        if (verdict == Verdict::HANDED_OVER) {
            break;
        }
        if (verdict == Verdict::CLOSE) {
            Close(true);
            break;
        }
        admitted_ = false;
        reader_.Done();
    }
    reading_ = false;
    return hasMoved;
}

bool Link::Admit(const FrameHeader& header)
{
    if (std::exchange(admitted_, true)) {
        return true;
    }
    const bool isHello = header.kind == FrameKind::HELLO || header.kind == FrameKind::HELLO_REPLY;
    if (!isHello && !greeted_ && (accepted_ || peer_ == nullptr)) {
        return false;
    }
    if (header.kind == FrameKind::ONE_WAY) {
        return peer_->Debt().Arrive(header.bytes);
    }
    const size_t bytes = isHello || header.kind == FrameKind::KEY ? sizeof(HelloBody) : 0;
    return header.bytes == bytes && header.objects == 0;
}

Link::Verdict Link::Handle(const FrameHeader& header, MessageParcel* frame)
{
    if (header.kind == FrameKind::HELLO || header.kind == FrameKind::HELLO_REPLY) {
        return HandleHello(*frame, header.kind);
    }
    IpcProcess& process = IpcProcess::Get();
    if ((header.kind == FrameKind::ONE_WAY || header.kind == FrameKind::GRANT) && !HoldsAll(*frame, header, *peer_)) {
        if (process.Loop().Settling()) {
            return Verdict::WAIT;
        }
        if (!AwaitGrants(*frame, header, *peer_) && !peer_->TakeRefusal(std::chrono::steady_clock::now())) {
            return Verdict::CLOSE;
        }
    }
    switch (header.kind) {
        case FrameKind::ONE_WAY:
            return HandleOneWay(header, frame);
        case FrameKind::KEY: {
            HelloBody body;
            return ReadHello(*frame, body) && accepted_ ? TakeKey(body) : Verdict::CLOSE;
        }
        case FrameKind::ONE_WAY_ACK:
            return peer_->Credit().GiveBack(header.target, header.extra) ? Verdict::GO_ON : Verdict::CLOSE;
        case FrameKind::RELEASE:
            if (header.extra > kMostReleased) {
                return Verdict::CLOSE;
            }
            process.AdjustHolder(header.target, peer_->Id(), -static_cast<int64_t>(header.extra));
            return Verdict::GO_ON;
        case FrameKind::GRANT:
            if (GrantTo(header.target, peer_, header.extra)) {
                grants_.push_back({header.extra, header.target});
                if (grants_.size() > kMostGrants) {
                    grants_.pop_front();
                }
            }
            return Verdict::GO_ON;
        case FrameKind::UNGRANT:
            if (TakeBackGrant({header.extra, header.target})) {
                process.AdjustHolder(header.target, header.extra, -1);
            }
            return Verdict::GO_ON;
        default:
            return Verdict::CLOSE;
    }
}

// Only what this peer has granted itself can it take back.
bool Link::TakeBackGrant(const ObjectEntry& grant)
{
    const auto found = std::find_if(grants_.rbegin(), grants_.rend(),
        [&](const ObjectEntry& entry) { return entry.owner == grant.owner && entry.id == grant.id; });
    if (found == grants_.rend()) {
        return false;
    }
    grants_.erase(std::next(found).base());
    return true;
}

bool Link::ReadHello(Parcel& frame, HelloBody& body)
{
    std::memcpy(&body, ParcelAccess::Data(frame), sizeof(body));
    return body.version == kWireVersion;
}

Link::Verdict Link::HandleHello(Parcel& frame, FrameKind kind)
{
    HelloBody body;
    if (greeted_ || accepted_ != (kind == FrameKind::HELLO) || !ReadHello(frame, body)) {
        return Verdict::CLOSE;
    }
    IpcProcess& process = IpcProcess::Get();
    if (accepted_ && body.use == ConnectionUse::CHANNEL) {
        const sptr<Peer> peer = process.KnownPeer(body.sender);
        if (peer == nullptr || !peer->Who().IsSameAs(credentials_) || !(peer->IssuedKey() == body.key)) {
            return Verdict::CLOSE;
        }
        process.Loop().Remove(Fd());
        closed_ = true;
        StopWaiting();
        process.Workers().Adopt(std::move(fd_), peer, reader_);
        return Verdict::HANDED_OVER;
    }
    if (body.use != ConnectionUse::LINK || (peer_ != nullptr && peer_->Id() != body.sender) ||
        (greeting_ != nullptr && !greeting_->Claim())) {
        return Verdict::CLOSE;
    }
    if (peer_ == nullptr) {
        peer_ = process.Greet(body.sender, credentials_, sptr<Link>(this));
        if (peer_ == nullptr) {
            return Verdict::CLOSE;
        }
    } else {
        Answer(*peer_);
    }
    greeted_ = true;
    StopWaiting();
    if (!accepted_) {
        TakeKey(body);
    }
    if (greeting_ != nullptr) {
        greeting_->Answer(peer_);
        greeting_.clear();
    }
    return Verdict::GO_ON;
}

void Link::Answer(const Peer& peer)
{
    const HelloFrame answer = MakeHello(accepted_ ? FrameKind::HELLO_REPLY : FrameKind::KEY, peer.IssuedKey());
    Send(&answer, sizeof(answer));
}

Link::Verdict Link::TakeKey(const HelloBody& body)
{
    peer_->SetKey(body.key);
    return Verdict::GO_ON;
}

Link::Verdict Link::HandleOneWay(const FrameHeader& header, MessageParcel* frame)
{
    // One or another may have died before this process has known it. Trying to reach many takes this thread's time.
    if (header.objects > 0 && UnpackObjects(*frame, header, peer_).unreachable > kMostUnreachable &&
        !peer_->TakeRefusal(std::chrono::steady_clock::now())) {
        return Verdict::CLOSE;
    }
    sptr<IRemoteObject> object = IpcProcess::Get().Objects().Find(header.target, peer_->Id());
    if (object == nullptr) {
        IPC_LOGE("process %{public}d called an object that it does not hold", credentials_.pid);
        object = new IPCObjectStub;  // takes the request and answers nobody
    }
    std::unique_ptr<MessageParcel> data;
    if (frame == scratch_.get()) {
        data = std::exchange(scratch_, std::make_unique<MessageParcel>());
    } else {
        data = reader_.TakeOwn();
    }
    IpcProcess::Get().OneWays().Add({std::move(object), peer_, header.code, std::move(data)});
    return Verdict::GO_ON;
}

void Link::Close(bool malformed)
{
    if (closed_) {
        return;
    }
    closed_ = true;
    if (malformed) {
        IPC_LOGE("malformed frame from process %{public}d, connection closed", credentials_.pid);
    }
    IpcProcess& process = IpcProcess::Get();
    const sptr<Link> self(this);
    process.Loop().Remove(Fd());
    StopWaiting();
    {
        MutexLock lock(outMutex_);
        outClosed_ = true;
        flushed_.NotifyAll();
    }
    if (counted_) {
        process.ForgetConnection(credentials_.uid);
    }
    if (greeting_ != nullptr) {
        greeting_->Answer(nullptr);
    }
    if (peer_ != nullptr) {
        process.Bury(peer_);
    }
    MutexLock lock(outMutex_);
    fd_.Reset();
}

}  // namespace VEXA::ipc
