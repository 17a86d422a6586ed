// SPDX-License-Identifier: Apache-2.0
#include "peer.h"

#include <algorithm>

#include "process.h"
#include "process_life.h"
#include "remote_proxy.h"

namespace VEXA::ipc {

Peer::Peer(EndpointId id, const Credentials& credentials)
    : id_(id), credentials_(credentials), issuedKey_{RandomNumber(), RandomNumber()}
{}

Peer::~Peer() = default;

void Peer::AttachLink(const sptr<Link>& link)
{
    MutexLock lock(mutex_);
    links_.push_back(link);
}

bool Peer::SendOnLink(const void* frame, size_t size)
{
    sptr<Link> link;
    {
        MutexLock lock(mutex_);
        if (links_.empty()) {
            return false;
        }
        link = links_.front();
    }
    return link->Send(frame, size);
}

bool Peer::WaitLinkFlushed(Deadline deadline)
{
    sptr<Link> link;
    {
        MutexLock lock(mutex_);
        if (links_.empty()) {
            return true;
        }
        link = links_.front();
    }
    return link->WaitFlushed(deadline);
}

std::vector<sptr<Link>> Peer::Links()
{
    MutexLock lock(mutex_);
    return links_;
}

void Peer::DrainLinks()
{
    for (const sptr<Link>& link : Links()) {
        link->TakeStock();
        link->Drain();
    }
}

void Peer::ShutdownLinks()
{
    for (const sptr<Link>& link : Links()) {
        link->Shutdown();
    }
}

void Peer::SetKey(const ChannelKey& key)
{
    MutexLock lock(mutex_);
    key_ = key;
    answered_ = true;
    changed_.NotifyAll();
}

bool Peer::WaitForKey(Deadline deadline, ChannelKey& key)
{
    MutexLock lock(mutex_);
    changed_.WaitUntil(mutex_, deadline, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return answered_ || Dead(); });
    key = key_;
    return answered_ && !Dead();
}

bool Peer::HasAnswered()
{
    MutexLock lock(mutex_);
    return answered_;
}

bool Peer::WaitUntilDead(std::chrono::milliseconds limit)
{
    MutexLock lock(mutex_);
    return changed_.WaitFor(mutex_, limit, [this] { return Dead(); });
}

sptr<IRemoteObject> Peer::Proxy(ObjectId id)
{
    MutexLock lock(proxiesMutex_);
    const auto found = proxies_.find(id);
    if (found != proxies_.end() && found->second->GetRefCounter()->TryIncStrong()) {
        sptr<RemoteProxy> proxy = sptr<RemoteProxy>::Adopt(found->second);
        proxy->CountReference();
        return proxy;
    }
    sptr<RemoteProxy> proxy = sptr<RemoteProxy>::MakeSptr(sptr<Peer>(this), id);
    if (proxy != nullptr) {
        proxies_[id] = proxy.GetRefPtr();
    }
    return proxy;
}

void Peer::Forget(const RemoteProxy* proxy, ObjectId id, uint64_t references)
{
    {
        MutexLock lock(proxiesMutex_);
        const auto found = proxies_.find(id);
        if (found != proxies_.end() && found->second == proxy) {
            proxies_.erase(found);
        }
    }
    while (id != kContextObject && !Dead() && references > 0) {
        const uint64_t part = std::min<uint64_t>(references, kMostReleased);
        const FrameHeader release = MakeHeader(FrameKind::RELEASE, id, part);
        SendOnLink(&release, sizeof(release));
        references -= part;
    }
}

bool Peer::Bury(Remains& remains)
{
    {
        MutexLock lock(mutex_);
        if (dead_.exchange(true, std::memory_order_acq_rel)) {
            return false;
        }
        remains.links.swap(links_);
        changed_.NotifyAll();
    }
    channels_.Close();
    MutexLock lock(proxiesMutex_);
    for (const auto& [id, proxy] : proxies_) {
        if (proxy->GetRefCounter()->TryIncStrong()) {
            remains.proxies.push_back(sptr<RemoteProxy>::Adopt(proxy));
        }
    }
    return true;
}

}  // namespace VEXA::ipc
