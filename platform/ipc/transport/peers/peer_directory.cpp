// SPDX-License-Identifier: Apache-2.0
#include "peer_directory.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "peer_log.h"
#include "runtime_paths.h"
#include "trace.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

// True when a connection that failed for this reason may succeed a moment later.
bool MayPass(int reason)
{
    return reason == EAGAIN || reason == EMFILE || reason == ENFILE || reason == ENOBUFS || reason == ENOMEM;
}

}  // namespace

sptr<Peer> PeerDirectory::KnownPeer(EndpointId id)
{
    MutexLock lock(mutex_);
    const auto found = peers_.find(id);
    return found != peers_.end() ? found->second.peer : nullptr;
}

bool PeerDirectory::HasDied(EndpointId id)
{
    MutexLock lock(mutex_);
    return IsDead(id);
}

bool PeerDirectory::IsDead(EndpointId id) const
{
    return std::ranges::find(dead_, id) != dead_.end();
}

sptr<Peer> PeerDirectory::Find(EndpointId id)
{
    const auto found = peers_.find(id);
    if (found != peers_.end()) {
        return found->second.peer;
    }
    const sptr<Peer> peer(new Peer(parts_.self, id, parts_.makeObject, parts_.bytes));
    if (IsDead(id)) {
        peer->Bury();
    }
    return peer;
}

sptr<Peer> PeerDirectory::PeerAt(EndpointId id)
{
    MutexLock lock(mutex_);
    const sptr<Peer> peer = Find(id);
    if (!peer->Dead() && !peer->IsConnected()) {
        const auto [known, isNew] = peers_.try_emplace(id, Known{peer});
        TryLater(known->second);
        if (!Connect(peer) && !MayPass(errno) && isNew) {
            // It is not kept: peers may name as many that are not there as they like.
            peers_.erase(known);
            peer->Bury();
        }
    }
    return peer;
}

bool PeerDirectory::Connect(const sptr<Peer>& peer)
{
    UniqueFd fd = ConnectAtOnce(EndpointPath(peer->Id()));
    if (!fd) {
        const int reason = errno;
        errno = MayPass(reason) && access(EndpointPath(peer->Id()).c_str(), F_OK) != 0 ? ENOENT : reason;
        return false;
    }
    const Credentials who = CredentialsOf(fd);
    // To whom this process connects is often a peer's choice, so these connections count like those that peers make.
    ConnectionCounts::Slot slot = parts_.connections.Take(who);
    if (!slot) {
        errno = EMFILE;
        return false;
    }
    const sptr<Link> link = parts_.openSession({std::move(fd), who, std::move(slot)}, peer);
    if (!parts_.reactor.Add(link)) {
        errno = ENOMEM;
        return false;
    }
    if (peer->Await(link)) {
        const HelloFrame hello = MakeHello(FrameKind::HELLO, ConnectionUse::LINK, parts_.self);
        link->Send(&hello, sizeof(hello));
    } else {
        link->Shutdown();  // it has greeted meanwhile
    }
    return true;
}

void PeerDirectory::TryLater(Known& known)
{
    known.isApart = true;
    if (!ticks_) {
        ticks_ = parts_.reactor.NeedTicks();
    }
}

void PeerDirectory::OnTick(Deadline now)
{
    MutexLock lock(mutex_);
    bool areApart = false;
    for (auto next = peers_.begin(); next != peers_.end();) {
        auto& [peer, isApart, missingSince] = (next++)->second;
        if (!isApart || peer->IsConnected() || Connect(peer)) {
            isApart = false;
            missingSince = {};
        } else if (MayPass(errno)) {
            missingSince = {};
        } else if (errno == ENOENT && (missingSince == Deadline() || now - missingSince <= kMissingLimit)) {
            missingSince = missingSince == Deadline() ? now : missingSince;
        } else {
            Forget(sptr<Peer>(peer));
            continue;
        }
        areApart = areApart || isApart;
    }
    if (!areApart) {
        ticks_.reset();
    }
}

bool PeerDirectory::IsEndpointOf(EndpointId claimed, const Credentials& credentials) const
{
    // The kernel tells which process listens at the claimed endpoint: it has to be the one that is speaking.
    const UniqueFd probe = ConnectAtOnce(EndpointPath(claimed));
    if (!probe) {
        IPC_LOGE_OF(&credentials, "the endpoint that process %{public}d claims can't be reached: %{public}s",
            credentials.pid, std::strerror(errno));
        return false;
    }
    if (claimed == parts_.self || !credentials.IsSameAs(CredentialsOf(probe))) {
        IPC_LOGE_OF(&credentials, "process %{public}d claims an endpoint that is not its own", credentials.pid);
        return false;
    }
    return true;
}

sptr<Peer> PeerDirectory::Identify(EndpointId claimed, const Credentials& who)
{
    const sptr<Peer> known = KnownPeer(claimed);
    if (known != nullptr && known->Who().pid > 0 && !known->Who().IsSameAs(who)) {
        // The endpoint of a process that is just ending, taken over by another.
        IPC_LOGE_OF(&who, "process %{public}d claims the endpoint of process %{public}d", who.pid, known->Who().pid);
        return nullptr;
    }
    // Where this process has connected to the endpoint, the kernel has told already who listens there.
    if (known != nullptr ? !known->IsWith(who) && !IsEndpointOf(claimed, who)
                         : !HasDied(claimed) && !IsEndpointOf(claimed, who)) {
        return nullptr;
    }
    MutexLock lock(mutex_);
    sptr<Peer> peer = Find(claimed);
    if (!peer->Dead()) {
        peers_.try_emplace(claimed, Known{peer});
    }
    return peer;
}

void PeerDirectory::AskToCloseIdle()
{
    const FrameHeader ask = MakeHeader(FrameKind::CLOSE_IDLE);
    MutexLock lock(mutex_);
    for (const auto& [id, known] : peers_) {
        known.peer->SendOnLink(&ask, sizeof(ask));
    }
}

ObjectId PeerDirectory::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    const ObjectId id = parts_.objects.AddHolder(object, holder);
    DropIfDead(holder);
    return id;
}

void PeerDirectory::AdjustHolder(ObjectId id, EndpointId holder, int64_t difference)
{
    parts_.workers.Drop(parts_.objects.Adjust(id, holder, difference));
    DropIfDead(holder);
}

void PeerDirectory::DropIfDead(EndpointId holder)
{
    if (KnownPeer(holder) == nullptr) {
        parts_.workers.Drop(parts_.objects.DropHolder(holder));
    }
}

void PeerDirectory::OnLinkEnd(const sptr<Peer>& peer, const sptr<Link>& link, Refusal why)
{
    // The mutex keeps others from connecting again before all objects have been told.
    MutexLock lock(mutex_);
    const bool isDeath = peer->Stands() || why == Refusal::DEAD;
    if (!peer->OnEnd(link, isDeath)) {
        return;
    }
    if (isDeath) {
        if (dead_.size() < kMostDead) {
            dead_.push_back(peer->Id());
        }
        dead_[deaths_++ % kMostDead] = peer->Id();
    }
    if (isDeath || why == Refusal::VERSION) {
        Forget(peer);
    } else {
        parts_.workers.Drop(peer->TellObjects());
        if (const auto known = peers_.find(peer->Id()); known != peers_.end()) {
            TryLater(known->second);
        }
    }
    lock.Unlock();
    if (isDeath) {
        if (IsTraced()) {
            TraceDeath(peer->Pid());
        }
        parts_.onDeath(peer->Id());
    }
    parts_.reactor.ResumeLater();  // another connection may have waited for this end
}

void PeerDirectory::Forget(const sptr<Peer>& peer)
{
    peers_.erase(peer->Id());
    parts_.workers.Drop(peer->Bury());
    parts_.workers.Drop(parts_.objects.DropHolder(peer->Id()));
}

}  // namespace VEXA::ipc
