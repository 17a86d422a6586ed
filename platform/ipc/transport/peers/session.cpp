// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "object_transfer.h"
#include "parcel_access.h"
#include "peer_log.h"
#include "transport/limits.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::ipc {
namespace {

HelloBody BodyOf(Parcel& frame)
{
    HelloBody body;
    std::memcpy(&body, ParcelAccess::Data(frame), sizeof(body));
    return body;
}

// Ends the session of a process that has ended. What the process has said is read first.
class ProcessWatch : public EventHandler {
public:
    ProcessWatch(UniqueFd fd, Reactor& reactor, const sptr<Link>& link)
        : EventHandler(std::move(fd)), reactor_(reactor), link_(link)
    {}
    void OnEvents(uint32_t) override
    {
        // The event may be of an earlier descriptor of that number.
        if (WaitReadable(Fd(), {})) {
            reactor_.Remove(Fd());
            link_->Shutdown();
        }
    }

private:
    Reactor& reactor_;
    const sptr<Link> link_;
};

}  // namespace

Session::Session(const Parts& parts, Connection connection)
    : Link(std::move(connection), parts.peers.Loop()),
      parts_(parts),
      accepted_(true),
      greetBy_(std::chrono::steady_clock::now() + kGreetLimit)
{
    awaiting_ = reactor_.NeedTicks();
}

Session::Session(const Parts& parts, Connection connection, const sptr<Peer>& peer, std::shared_ptr<Greeting> greeting)
    : Link(std::move(connection), parts.peers.Loop()),
      parts_(parts),
      accepted_(false),
      peer_(peer),
      greeting_(std::move(greeting))
{}

void Session::OnTick(Deadline now)
{
    if (awaiting_ && now > greetBy_) {
        Close(false);
    }
}

bool Session::Admit(const FrameHeader& header)
{
    const bool isHello = header.kind == FrameKind::HELLO;
    const bool isAnswer = header.kind == FrameKind::HELLO_REPLY || header.kind == FrameKind::REFUSAL;
    // A KEY or an answer makes the session stand, or ends the connection.
    const bool isNext = isHello ? accepted_ && peer_ == nullptr : isAnswer ? !accepted_ : peer_ != nullptr;
    if (!isNext || stands_ == (isHello || isAnswer || header.kind == FrameKind::KEY)) {
        return false;
    }
    if (header.kind == FrameKind::ONE_WAY) {
        arriving_ = peer_->Debt().Arrive(header.bytes);
        return arriving_ != nullptr;
    }
    return header.bytes == (stands_ ? 0 : sizeof(HelloBody)) && header.objects == 0;
}

Link::Verdict Session::Handle(const FrameHeader& header, MessageParcel& frame)
{
    PeerDirectory& peers = parts_.peers;
    switch (header.kind) {
        case FrameKind::HELLO:
            return HandleHello(BodyOf(frame));
        case FrameKind::HELLO_REPLY:
            return HandleReply(BodyOf(frame));
        case FrameKind::REFUSAL:
            return HandleRefusal(static_cast<Refusal>(header.code), BodyOf(frame));
        case FrameKind::KEY:
            WatchProcess();
            if (!peer_->OnKey(sptr<Link>(this), BodyOf(frame).key)) {
                return Verdict::CLOSE;
            }
            Stand();
            return Verdict::GO_ON;
        case FrameKind::ONE_WAY:
            return HandleOneWay(header, frame);
        case FrameKind::ONE_WAY_ACK:
            return peer_->Credit().GiveBack(header.target, header.extra) ? Verdict::GO_ON : Verdict::CLOSE;
        case FrameKind::ONE_WAY_WANT: {
            const auto widen = [peer = peer_] { peer->Debt().Widen(); };
            return peer_->Debt().Want(peer_->Account(), header.extra, widen) ? Verdict::GO_ON : Verdict::CLOSE;
        }
        case FrameKind::ONE_WAY_WINDOW:
            return peer_->Credit().Widen(header.extra) ? Verdict::GO_ON : Verdict::CLOSE;
        case FrameKind::CLOSE_IDLE:
            peer_->Channels().CloseIdle();
            return Verdict::GO_ON;
        case FrameKind::RELEASE:
            if (header.extra > kMostReleased) {
                return Verdict::CLOSE;
            }
            peers.AdjustHolder(header.target, peer_->Id(), -static_cast<int64_t>(header.extra));
            return Verdict::GO_ON;
        case FrameKind::GRANT: {
            if (const Verdict verdict = HandleUnheld(header, frame); verdict != Verdict::GO_ON) {
                return verdict;
            }
            std::list<ObjectEntry> grant{{header.extra, header.target}};
            if (GrantTo(peers, header.target, *peer_, header.extra)) {
                grants_.splice(grants_.end(), grant);
                if (grants_.size() > kMostGrants) {
                    grants_.pop_front();
                }
            }
            return Verdict::GO_ON;
        }
        case FrameKind::UNGRANT: {
            // A peer can take back only what it has granted itself.
            const auto grant = std::ranges::find(grants_, ObjectEntry{header.extra, header.target});
            if (grant != grants_.end()) {
                peers.AdjustHolder(header.target, header.extra, -1);
                grants_.erase(grant);  // not before: the other may throw, and is then tried again
            }
            return Verdict::GO_ON;
        }
        default:
            return Verdict::CLOSE;
    }
}

Link::Verdict Session::HandleUnheld(const FrameHeader& header, MessageParcel& frame)
{
    if (HoldsAll(parts_.peers, frame, header, *peer_)) {
        return Verdict::GO_ON;
    }
    if (reactor_.Settling()) {
        return Verdict::WAIT;
    }
    return AwaitGrants(parts_.peers, frame, header, *peer_) || peer_->TakeRefusal(std::chrono::steady_clock::now())
               ? Verdict::GO_ON
               : Verdict::CLOSE;
}

Link::Verdict Session::HandleHello(const HelloBody& body)
{
    if (body.version != kWireVersion) {
        LogVersions(body.version);
        return Refuse(Refusal::VERSION);
    }
    if (body.use == ConnectionUse::CHANNEL) {
        return HandleChannel(body);
    }
    const sptr<Peer> peer = body.use == ConnectionUse::LINK ? parts_.peers.Identify(body.sender, Who()) : nullptr;
    if (peer == nullptr) {
        return Verdict::END;
    }
    if (peer->Stands() || peer->Dead()) {
        return Refuse(peer->Dead() ? Refusal::DEAD : Refusal::STANDS);
    }
    if (!peer->OnHello(sptr<Link>(this))) {
        return Verdict::WAIT;
    }
    peer_ = peer;
    awaiting_.reset();
    return Verdict::GO_ON;
}

void Session::LogVersions(uint32_t other) const
{
    IPC_LOGE("process %{public}d speaks version %{public}u and this one %{public}u: connection closed", Who().pid,
        other, kWireVersion);
}

Link::Verdict Session::Refuse(Refusal reason)
{
    const HelloFrame refusal = MakeRefusal(reason, parts_.peers.Self());
    Send(&refusal, sizeof(refusal));
    return Verdict::END;
}

Link::Verdict Session::HandleReply(const HelloBody& body)
{
    // Where memory is short, this is called again for the same frame, with what it has come to so far.
    const bool mayTake = greeting_ == nullptr || isTaker_ || !greeting_->isTaken.exchange(true);
    if (body.version != kWireVersion || body.use != ConnectionUse::LINK || !mayTake ||
        (peer_ != nullptr && peer_->Id() != body.sender)) {
        return Verdict::CLOSE;
    }
    isTaker_ = true;
    if (peer_ == nullptr) {
        peer_ = parts_.peers.Identify(body.sender, Who());
    }
    if (peer_ == nullptr) {
        return Verdict::END;
    }
    WatchProcess();
    if (!peer_->OnReply(sptr<Link>(this), greeting_ != nullptr, body.key)) {
        return Verdict::END;
    }
    Stand();
    if (greeting_ != nullptr) {
        greeting_->peer.set_value(peer_);
        greeting_.reset();
    }
    return Verdict::GO_ON;
}

Link::Verdict Session::HandleRefusal(Refusal reason, const HelloBody& body)
{
    refusal_ = reason;
    if (reason == Refusal::VERSION) {
        LogVersions(body.version);
    }
    if (reason == Refusal::VERSION && peer_ != nullptr) {
        peer_->otherVersion = body.version;
    }
    if (reason == Refusal::STANDS && greeting_ != nullptr) {
        // The publisher is a process that is known already, so this one uses the session with it, standing or about to
        // stand.
        const sptr<Peer> known = parts_.peers.KnownPeer(body.sender);
        if (known != nullptr && known->IsWith(Who()) && !greeting_->isTaken.exchange(true)) {
            greeting_->peer.set_value(known);
            greeting_.reset();
        }
    }
    return Verdict::END;
}

void Session::WatchProcess()
{
    UniqueFd fd = watch_ == nullptr ? OpenProcess(Who().pid) : UniqueFd();
    if (fd) {
        const sptr<EventHandler> watch(new ProcessWatch(std::move(fd), reactor_, sptr<Link>(this)));
        reactor_.Add(watch, EPOLLIN);
        watch_ = watch;
    } else if (watch_ == nullptr && errno == ESRCH) {
        Shutdown();
    }
}

void Session::Stand()
{
    stands_ = true;
    reactor_.ResumeLater();  // another connection may wait for this
}

Link::Verdict Session::HandleChannel(const HelloBody& body)
{
    const sptr<Peer> peer = parts_.peers.KnownPeer(body.sender);
    // The key for this process may be unread yet.
    if (peer == nullptr || !peer->IsWith(Who()) || !(peer->IssuedKey() == body.key)) {
        return Verdict::CLOSE;
    }
    parts_.adoptChannel([this] { return GiveUp(); }, peer, Reader());
    awaiting_.reset();
    return Verdict::HANDED_OVER;
}

Link::Verdict Session::HandleOneWay(const FrameHeader& header, MessageParcel& frame)
{
    if (const Verdict verdict = HandleUnheld(header, frame); verdict != Verdict::GO_ON) {
        return verdict;
    }
    // A few may have died before this process has known them. Trying to reach many takes this thread's time.
    if (header.objects > 0 && UnpackObjects(parts_.peers, frame, header, peer_).unreachable > kMostUnreachable &&
        !peer_->TakeRefusal(std::chrono::steady_clock::now())) {
        return Verdict::CLOSE;
    }
    sptr<IRemoteObject> object = parts_.peers.Objects().Find(header.target, peer_->Id());
    if (object == nullptr) {
        IPC_LOGE_OF(&Who(), "process %{public}d called an object that it does not hold", Who().pid);
        object = new IPCObjectStub;  // takes the request and answers nobody
    }
    // All that may throw comes before the frame is taken.
    OneWayQueues::Arrival arrival = OneWayQueues::Prepare({object, peer_, nullptr, header.code, nullptr, header.extra});
    arrival.request.front().data = TakeFrame(frame);
    arrival.request.front().charge = std::move(arriving_);
    parts_.oneWays.Add(std::move(arrival));
    return Verdict::GO_ON;
}

void Session::OnEnd()
{
    awaiting_.reset();
    if (greeting_ != nullptr) {
        greeting_->peer.set_value(nullptr);
    }
    if (watch_ != nullptr) {
        reactor_.Remove(watch_->Fd());
        watch_ = nullptr;
    }
    if (peer_ != nullptr) {
        parts_.peers.OnLinkEnd(peer_, sptr<Link>(this), refusal_);
    }
}

}  // namespace VEXA::ipc
