// SPDX-License-Identifier: Apache-2.0
#include "peer.h"

#include <algorithm>
#include <utility>

#include "transport/limits.h"

namespace VEXA::ipc {

void PeerObject::GiveBack()
{
    owner_->Forget(this, id_, references_.load(std::memory_order_relaxed));
}

Peer::Peer(EndpointId id, const Credentials& credentials, MakeObject makeObject)
    : id_(id), credentials_(credentials), issuedKey_{RandomNumber(), RandomNumber()}, makeObject_(std::move(makeObject))
{}

Peer::~Peer() = default;

void Peer::AttachLink(const sptr<Link>& link)
{
    MutexLock lock(mutex_);
    links_.push_back(link);
}

sptr<Link> Peer::FirstLink()
{
    MutexLock lock(mutex_);
    return links_.empty() ? nullptr : links_.front();
}

bool Peer::SendOnLink(const void* frame, size_t size)
{
    const sptr<Link> link = FirstLink();
    return link != nullptr && link->Send(frame, size);
}

bool Peer::WaitLinkFlushed(Deadline deadline)
{
    const sptr<Link> link = FirstLink();
    return link == nullptr || link->WaitFlushed(deadline);
}

std::vector<sptr<Link>> Peer::Links()
{
    MutexLock lock(mutex_);
    return links_;
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

sptr<IRemoteObject> Peer::Object(ObjectId id)
{
    MutexLock lock(objectsMutex_);
    const auto found = objects_.find(id);
    if (found != objects_.end() && found->second->GetRefCounter()->TryIncStrong()) {
        sptr<PeerObject> object = sptr<PeerObject>::Adopt(found->second);
        object->CountReference();
        return object;
    }
    sptr<PeerObject> object = makeObject_(sptr<Peer>(this), id);
    if (object != nullptr) {
        objects_[id] = object.GetRefPtr();
    }
    return object;
}

void Peer::Forget(const PeerObject* object, ObjectId id, uint64_t references)
{
    {
        MutexLock lock(objectsMutex_);
        const auto found = objects_.find(id);
        if (found != objects_.end() && found->second == object) {
            objects_.erase(found);
        }
    }
    while (id != kContextObject && !Dead() && references > 0) {
        const uint64_t part = std::min<uint64_t>(references, kMostReleased);
        const FrameHeader release = MakeHeader(FrameKind::RELEASE, id, part);
        SendOnLink(&release, sizeof(release));
        references -= part;
    }
}

std::vector<sptr<PeerObject>> Peer::Bury()
{
    std::vector<sptr<Link>> links;
    {
        MutexLock lock(mutex_);
        dead_.store(true, std::memory_order_release);
        links.swap(links_);
        changed_.NotifyAll();
    }
    channels_.Close();
    for (const sptr<Link>& link : links) {
        link->Shutdown();
    }
    std::vector<sptr<PeerObject>> objects;
    {
        MutexLock lock(objectsMutex_);
        for (const auto& [id, object] : objects_) {
            if (object->GetRefCounter()->TryIncStrong()) {
                objects.push_back(sptr<PeerObject>::Adopt(object));
            }
        }
    }
    for (const sptr<PeerObject>& object : objects) {
        object->NotifyDeath();
    }
    return objects;
}

}  // namespace VEXA::ipc
