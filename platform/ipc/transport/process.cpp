// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "connection_listener.h"
#include "ipc_log.h"
#include "object_transfer.h"
#include "process_life.h"
#include "remote_proxy.h"
#include "runtime_paths.h"

namespace VEXA::ipc {
namespace {

// Endpoints that are remembered as dead. What is still on its way of a dead process arrives within moments.
constexpr size_t kMostDead = 4096;

size_t MostConnections()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return SIZE_MAX;
    }
    return static_cast<size_t>(limit.rlim_cur) * 3 / 4;
}

}  // namespace

uint64_t RandomNumber()
{
    uint64_t number = 0;
    while (number == 0) {
        if (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
            number = 0;
        }
    }
    return number;
}

IpcProcess& IpcProcess::Get()
{
    static IpcProcess* const process = new IpcProcess;
    return *process;
}

bool IpcProcess::Start()
{
    if (started_.load(std::memory_order_acquire)) {
        return true;
    }
    MutexLock lock(startMutex_);
    if (!started_.load(std::memory_order_relaxed) && StartLocked()) {
        started_.store(true, std::memory_order_release);
    }
    return started_.load(std::memory_order_relaxed);
}

bool IpcProcess::StartLocked()
{
    ProcessLife::Get().Watch();
    if (!threadsStarted_) {
        id_.store(RandomNumber(), std::memory_order_relaxed);
        // Closing a channel can end objects, whose code is nothing for the reactor.
        reactor_.SetTickAction([this](Deadline now) {
            workers_.Post([this, now] {
                workers_.CloseStalled(now);
                contextWatch_.OnTick();
            });
        });
    }
    UniqueFd listener = ListenAt(EndpointPath(Id()));
    if (listener && !threadsStarted_) {
        threadsStarted_ = workers_.Start() && reactor_.Start();
    }
    endpoint_ = listener && threadsStarted_ ? Listen(std::move(listener)) : nullptr;
    if (endpoint_ == nullptr) {
        if (!startFailed_) {
            IPC_LOGE("no endpoint in %{public}s: %{public}s", EndpointDirectory().c_str(), std::strerror(errno));
        }
        startFailed_ = true;
        return false;
    }
    // Without room for the handler only the socket's file stays, which whoever publishes the context object removes.
    (void)std::atexit(&AtExit);
    return true;
}

sptr<EventHandler> IpcProcess::Listen(UniqueFd listener)
{
    const sptr<EventHandler> handler(new ConnectionListener(std::move(listener)));
    return reactor_.Add(handler, EPOLLIN) ? handler : nullptr;
}

bool IpcProcess::RenewEndpoint()
{
    MutexLock lock(startMutex_);
    if (access(EndpointPath(Id()).c_str(), F_OK) == 0) {
        return true;
    }
    UniqueFd listener = ListenAt(EndpointPath(Id()));
    const sptr<EventHandler> fresh = listener ? Listen(std::move(listener)) : nullptr;
    if (fresh == nullptr) {
        return false;
    }
    endpointRenewed_ = true;
    // It may have removed the endpoint itself, and before this was made.
    if (ProcessLife::Get().Exiting()) {
        unlink(EndpointPath(Id()).c_str());
    }
    reactor_.Remove(endpoint_->Fd());
    endpoint_ = fresh;
    return true;
}

bool IpcProcess::MissingEndpointMeansExit() const
{
    return !endpointRenewed_ && access(EndpointPath(Id()).c_str(), F_OK) == 0;
}

// A process that leaves runs no more requests, whose code may need what is being destroyed, and takes its socket along.
void IpcProcess::AtExit()
{
    if (!ProcessLife::Get().Forked()) {
        ProcessLife::Get().SetExiting();
        unlink(EndpointPath(Get().Id()).c_str());
    }
}

sptr<Peer> IpcProcess::KnownPeer(EndpointId id)
{
    MutexLock lock(peersMutex_);
    const auto found = peers_.find(id);
    return found != peers_.end() ? found->second : nullptr;
}

bool IpcProcess::HasDied(EndpointId id)
{
    MutexLock lock(peersMutex_);
    return dead_.contains(id);
}

sptr<Peer> IpcProcess::PeerAt(EndpointId id)
{
    MutexLock lock(peersMutex_);
    const auto found = peers_.find(id);
    if (found != peers_.end()) {
        return found->second;
    }
    UniqueFd fd;
    if (!dead_.contains(id)) {
        fd = ConnectAtOnce(EndpointPath(id));
    }
    // Who it is connected to is often a peer's choice, so these connections count like those that peers make.
    const Credentials credentials = fd ? CredentialsOf(fd) : Credentials();
    sptr<Peer> peer(new Peer(id, credentials));
    if (fd && AdmitConnection(credentials.uid)) {
        const sptr<Link> link(new Link(std::move(fd), peer));
        peer->AttachLink(link);
        if (reactor_.Add(link, EPOLLIN | EPOLLRDHUP)) {
            peers_[id] = peer;
            return peer;
        }
        ForgetConnection(credentials.uid);
    }
    Peer::Remains none;
    peer->Bury(none);
    return peer;
}

bool IpcProcess::IsEndpointOf(EndpointId claimed, const Credentials& credentials) const
{
    // The kernel tells who listens at the claimed endpoint: it has to be who is speaking.
    const UniqueFd probe = ConnectAtOnce(EndpointPath(claimed));
    if (!probe) {
        IPC_LOGE("the endpoint that process %{public}d claims can't be reached: %{public}s", credentials.pid,
            std::strerror(errno));
        return false;
    }
    if (claimed == Id() || !credentials.IsSameAs(CredentialsOf(probe))) {
        IPC_LOGE("process %{public}d claims an endpoint that is not its own", credentials.pid);
        return false;
    }
    return true;
}

sptr<Peer> IpcProcess::Greet(EndpointId claimed, const Credentials& credentials, const sptr<Link>& link)
{
    // Who a known process is was found out before; since then its endpoint may have gone, as it does first when a
    // process leaves. None is forgotten meanwhile: that is this thread's work.
    if (KnownPeer(claimed) == nullptr && !IsEndpointOf(claimed, credentials)) {
        return nullptr;
    }
    MutexLock lock(peersMutex_);
    if (dead_.contains(claimed)) {
        return nullptr;
    }
    sptr<Peer>& peer = peers_[claimed];
    if (peer == nullptr) {
        peer = new Peer(claimed, credentials);
    }
    if (!peer->Who().IsSameAs(credentials)) {
        // The endpoint of a process that is just ending, taken over by another.
        IPC_LOGE("process %{public}d claims the endpoint of process %{public}d", credentials.pid, peer->Who().pid);
        return nullptr;
    }
    // The answer comes first on the link: once it is attached, other threads send on it.
    link->Answer(*peer);
    peer->AttachLink(link);
    return peer;
}

ObjectId IpcProcess::AddHolder(const sptr<IRemoteObject>& object, EndpointId holder)
{
    const ObjectId id = objects_.AddHolder(object, holder);
    DropIfDead(holder);
    return id;
}

void IpcProcess::AdjustHolder(ObjectId id, EndpointId holder, int64_t difference)
{
    if (sptr<IRemoteObject> dropped = objects_.Adjust(id, holder, difference)) {
        workers_.Post([dropped = std::move(dropped)] {});
    }
    DropIfDead(holder);
}

void IpcProcess::DropIfDead(EndpointId holder)
{
    if (KnownPeer(holder) != nullptr) {
        return;
    }
    std::vector<sptr<IRemoteObject>> left = objects_.DropHolder(holder);
    if (!left.empty()) {
        workers_.Post([left = std::move(left)] {});
    }
}

void IpcProcess::Bury(const sptr<Peer>& peer)
{
    // What the process still said on another link counts.
    peer->DrainLinks();
    Peer::Remains remains;
    {
        // The endpoint is known as dead before anyone is told, so that whoever looks again finds it dead.
        MutexLock lock(peersMutex_);
        const auto found = peers_.find(peer->Id());
        if (found == peers_.end() || found->second != peer) {
            return;
        }
        peers_.erase(found);
        // One that never answered may have been busy only, and may be tried again.
        if (peer->HasAnswered() && dead_.insert(peer->Id()).second) {
            deadOrder_.push_back(peer->Id());
            if (deadOrder_.size() > kMostDead) {
                dead_.erase(deadOrder_.front());
                deadOrder_.pop_front();
            }
        }
    }
    if (!peer->Bury(remains)) {
        return;
    }
    for (const sptr<Link>& link : remains.links) {
        link->Shutdown();
    }
    for (const sptr<RemoteProxy>& proxy : remains.proxies) {
        proxy->NotifyDeath();
    }
    // Objects that only the dead process held end here; their code must not hold up the reactor.
    auto dropped = std::make_shared<std::vector<sptr<IRemoteObject>>>(objects_.DropHolder(peer->Id()));
    auto proxies = std::make_shared<std::vector<sptr<RemoteProxy>>>(std::move(remains.proxies));
    if (!dropped->empty() || !proxies->empty()) {
        workers_.Post([dropped, proxies] {
            dropped->clear();
            proxies->clear();
        });
    }
    if (EndpointId dead = peer->Id(); publisher_.compare_exchange_strong(dead, 0)) {
        workers_.Post([this] { contextWatch_.Look(); });
    }
    RemoveEndpointOf(*peer);
}

bool IpcProcess::AdmitConnection(uid_t user)
{
    MutexLock lock(connectionsMutex_);
    size_t& own = connectionsOf_[user];
    const size_t most = MostConnections();
    // Where descriptors are few, one user still leaves some of them to the others.
    if (own >= std::min(kMaxConnectionsPerUser, most / 3 * 2) || connections_ >= most) {
        if (refused_++ == 0) {
            IPC_LOGE("too many connections (%{public}zu of user %{public}u): new ones are refused", own, user);
        }
        return false;
    }
    ++own;
    ++connections_;
    refused_ = 0;
    return true;
}

void IpcProcess::ForgetConnection(uid_t user)
{
    MutexLock lock(connectionsMutex_);
    const auto found = connectionsOf_.find(user);
    if (--found->second == 0) {
        connectionsOf_.erase(found);
    }
    --connections_;
}

void IpcProcess::RemoveEndpointOf(const Peer& peer)
{
    MutexLock lock(startMutex_);
    if (publishing_ && !ConnectAtOnce(EndpointPath(peer.Id())) && errno == ECONNREFUSED) {
        unlink(EndpointPath(peer.Id()).c_str());
    }
}

}  // namespace VEXA::ipc
