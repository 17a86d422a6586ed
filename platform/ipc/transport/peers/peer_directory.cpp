// SPDX-License-Identifier: Apache-2.0
#include "peer_directory.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "ipc_log.h"
#include "runtime_paths.h"
#include "transport/limits.h"

namespace VEXA::ipc {

sptr<Peer> PeerDirectory::KnownPeer(EndpointId id)
{
    MutexLock lock(mutex_);
    const auto found = peers_.find(id);
    return found != peers_.end() ? found->second : nullptr;
}

bool PeerDirectory::HasDied(EndpointId id)
{
    MutexLock lock(mutex_);
    return dead_.contains(id);
}

sptr<Peer> PeerDirectory::PeerAt(EndpointId id)
{
    MutexLock lock(mutex_);
    const auto found = peers_.find(id);
    if (found != peers_.end()) {
        return found->second;
    }
    UniqueFd fd = dead_.contains(id) ? UniqueFd() : ConnectAtOnce(EndpointPath(id));
    const Credentials credentials = fd ? CredentialsOf(fd) : Credentials();
    sptr<Peer> peer(new Peer(id, credentials, parts_.makeObject));
    // To whom this process connects is often a peer's choice, so these connections count like those that peers make.
    ConnectionCounts::Slot slot = fd ? parts_.connections.Take(credentials.uid) : nullptr;
    if (slot) {
        const sptr<Link> link = parts_.openSession({std::move(fd), credentials, std::move(slot)}, peer);
        peer->AttachLink(link);
        if (parts_.reactor.Add(link)) {
            peers_[id] = peer;
            return peer;
        }
    }
    peer->Bury();
    return peer;
}

bool PeerDirectory::IsEndpointOf(EndpointId claimed, const Credentials& credentials) const
{
    // The kernel tells which process listens at the claimed endpoint: it has to be the one that is speaking.
    const UniqueFd probe = ConnectAtOnce(EndpointPath(claimed));
    if (!probe) {
        IPC_LOGE("the endpoint that process %{public}d claims can't be reached: %{public}s", credentials.pid,
            std::strerror(errno));
        return false;
    }
    if (claimed == parts_.self || !credentials.IsSameAs(CredentialsOf(probe))) {
        IPC_LOGE("process %{public}d claims an endpoint that is not its own", credentials.pid);
        return false;
    }
    return true;
}

sptr<Peer> PeerDirectory::Greet(EndpointId claimed, const sptr<Link>& link, FrameKind answer)
{
    const Credentials& who = link->Who();
    // For a known process this was found out before, and its endpoint may have gone since then, as it does first when
    // a process leaves. No process is forgotten meanwhile: that is this thread's work.
    if (KnownPeer(claimed) == nullptr && !IsEndpointOf(claimed, who)) {
        return nullptr;
    }
    MutexLock lock(mutex_);
    if (dead_.contains(claimed)) {
        return nullptr;
    }
    sptr<Peer>& peer = peers_[claimed];
    if (peer == nullptr) {
        peer = new Peer(claimed, who, parts_.makeObject);
    }
    if (!peer->Who().IsSameAs(who)) {
        // The endpoint of a process that is just ending, taken over by another.
        IPC_LOGE("process %{public}d claims the endpoint of process %{public}d", who.pid, peer->Who().pid);
        return nullptr;
    }
    // The answer comes first on the link: once it is attached, other threads send on it.
    const HelloFrame hello = MakeHello(answer, ConnectionUse::LINK, parts_.self, peer->IssuedKey());
    link->Send(&hello, sizeof(hello));
    peer->AttachLink(link);
    return peer;
}

ObjectId PeerDirectory::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    const ObjectId id = parts_.objects.AddHolder(object, holder);
    DropIfDead(holder);
    return id;
}

void PeerDirectory::AdjustHolder(ObjectId id, EndpointId holder, int64_t difference)
{
    if (sptr<IRemoteObject> dropped = parts_.objects.Adjust(id, holder, difference)) {
        DropOnWorker(std::vector{std::move(dropped)});
    }
    DropIfDead(holder);
}

void PeerDirectory::DropIfDead(EndpointId holder)
{
    if (KnownPeer(holder) == nullptr) {
        DropOnWorker(parts_.objects.DropHolder(holder));
    }
}

void PeerDirectory::Bury(const sptr<Peer>& peer)
{
    // All that the process still said on another link counts, also where that link is not accepted yet.
    if (!parts_.reactor.Settling()) {
        parts_.reactor.Settle(kSettleWait);
    }
    MutexLock lock(mutex_);
    const auto found = peers_.find(peer->Id());
    if (found == peers_.end() || found->second != peer) {
        return;
    }
    peers_.erase(found);
    // A process that never answered may have been busy only, and may be tried again.
    if (peer->HasAnswered() && dead_.insert(peer->Id()).second) {
        deadOrder_.push_back(peer->Id());
    }
    if (deadOrder_.size() > kMostDead) {
        dead_.erase(deadOrder_.front());
        deadOrder_.pop_front();
    }
    lock.Unlock();
    // From here on whoever looks for the endpoint finds it dead.
    DropOnWorker(peer->Bury());
    DropOnWorker(parts_.objects.DropHolder(peer->Id()));
    parts_.onDeath(peer->Id());
}

}  // namespace VEXA::ipc
