// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "ipc_log.h"
#include "object_transfer.h"
#include "parcel_access.h"
#include "transport/limits.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::ipc {
namespace {

bool ReadHello(Parcel& frame, HelloBody& body)
{
    std::memcpy(&body, ParcelAccess::Data(frame), sizeof(body));
    return body.version == kWireVersion;
}

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
{
    const HelloFrame hello = MakeHello(FrameKind::HELLO, ConnectionUse::LINK, parts_.peers.Self());
    Send(&hello, sizeof(hello));
}

void Session::OnTick(Deadline now)
{
    if (awaiting_ && now > greetBy_) {
        Close(false);
    }
}

bool Session::Admit(const FrameHeader& header)
{
    const bool isHello = header.kind == FrameKind::HELLO || header.kind == FrameKind::HELLO_REPLY;
    if (!isHello && !greeted_ && (accepted_ || peer_ == nullptr)) {
        return false;
    }
    if (header.kind == FrameKind::ONE_WAY) {
        arriving_ = peer_->Debt().Arrive(header.bytes);
        return arriving_ != nullptr;
    }
    const size_t bytes = isHello || header.kind == FrameKind::KEY ? sizeof(HelloBody) : 0;
    return header.bytes == bytes && header.objects == 0;
}

Link::Verdict Session::Handle(const FrameHeader& header, MessageParcel& frame)
{
    PeerDirectory& peers = parts_.peers;
    switch (header.kind) {
        case FrameKind::HELLO:
        case FrameKind::HELLO_REPLY:
            return HandleHello(frame, header.kind);
        case FrameKind::KEY: {
            HelloBody body;
            if (!accepted_ || !ReadHello(frame, body)) {
                return Verdict::CLOSE;
            }
            peer_->SetKey(body.key);
            return Verdict::GO_ON;
        }
        case FrameKind::ONE_WAY:
            return HandleOneWay(header, frame);
        case FrameKind::ONE_WAY_ACK:
            return peer_->Credit().GiveBack(header.target, header.extra) ? Verdict::GO_ON : Verdict::CLOSE;
        case FrameKind::RELEASE:
            if (header.extra > kMostReleased) {
                return Verdict::CLOSE;
            }
            peers.AdjustHolder(header.target, peer_->Id(), -static_cast<int64_t>(header.extra));
            return Verdict::GO_ON;
        case FrameKind::GRANT:
            if (const Verdict verdict = HandleUnheld(header, frame); verdict != Verdict::GO_ON) {
                return verdict;
            }
            if (GrantTo(peers, header.target, *peer_, header.extra)) {
                grants_.push_back({header.extra, header.target});
                if (grants_.size() > kMostGrants) {
                    grants_.pop_front();
                }
            }
            return Verdict::GO_ON;
        case FrameKind::UNGRANT: {
            // A peer can take back only what it has granted itself.
            const auto grant = std::ranges::find(grants_, ObjectEntry{header.extra, header.target});
            if (grant != grants_.end()) {
                grants_.erase(grant);
                peers.AdjustHolder(header.target, header.extra, -1);
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

Link::Verdict Session::HandleHello(Parcel& frame, FrameKind kind)
{
    HelloBody body;
    if (greeted_ || accepted_ != (kind == FrameKind::HELLO) || !ReadHello(frame, body)) {
        return Verdict::CLOSE;
    }
    if (accepted_ && body.use == ConnectionUse::CHANNEL) {
        return HandleChannel(body);
    }
    if (body.use != ConnectionUse::LINK || (peer_ != nullptr && peer_->Id() != body.sender) ||
        (greeting_ != nullptr && greeting_->isTaken.exchange(true))) {
        return Verdict::CLOSE;
    }
    if (peer_ == nullptr) {
        peer_ = parts_.peers.Greet(body.sender, sptr<Link>(this), accepted_ ? FrameKind::HELLO_REPLY : FrameKind::KEY);
        if (peer_ == nullptr) {
            return Verdict::CLOSE;
        }
    } else {
        const HelloFrame key = MakeHello(FrameKind::KEY, ConnectionUse::LINK, parts_.peers.Self(), peer_->IssuedKey());
        Send(&key, sizeof(key));
    }
    greeted_ = true;
    awaiting_.reset();
    if (!accepted_) {
        peer_->SetKey(body.key);
    }
    if (greeting_ != nullptr) {
        greeting_->peer.set_value(peer_);
        greeting_.reset();
    }
    return Verdict::GO_ON;
}

Link::Verdict Session::HandleChannel(const HelloBody& body)
{
    const sptr<Peer> peer = parts_.peers.KnownPeer(body.sender);
    if (peer == nullptr || !peer->Who().IsSameAs(Who()) || !(peer->IssuedKey() == body.key)) {
        return Verdict::CLOSE;
    }
    awaiting_.reset();
    parts_.adoptChannel(GiveUp(), peer, Reader());
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
        IPC_LOGE("process %{public}d called an object that it does not hold", Who().pid);
        object = new IPCObjectStub;  // takes the request and answers nobody
    }
    parts_.oneWays.Add({std::move(object), peer_, std::move(arriving_), header.code, TakeFrame(frame)});
    return Verdict::GO_ON;
}

void Session::OnEnd()
{
    awaiting_.reset();
    if (greeting_ != nullptr) {
        greeting_->peer.set_value(nullptr);
    }
    if (peer_ != nullptr) {
        parts_.peers.Bury(peer_);
    }
}

}  // namespace VEXA::ipc
