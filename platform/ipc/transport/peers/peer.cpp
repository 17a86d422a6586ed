// SPDX-License-Identifier: Apache-2.0
#include "peer.h"

#include <algorithm>
#include <utility>

#include "transport/limits.h"

namespace VEXA::ipc {

Peer::Peer(EndpointId id, const Credentials& credentials, MakeObject makeObject)
    : id_(id),
      credentials_(credentials),
      issuedKey_{RandomNumber(), RandomNumber()},
      makeObject_(std::move(makeObject)),
      debt_([this](uint64_t frames, uint64_t bytes) {
          const FrameHeader ack = MakeHeader(FrameKind::ONE_WAY_ACK, frames, bytes);
          SendOnLink(&ack, sizeof(ack));
      })
{}

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
    changed_.NotifyAll();
}

bool Peer::WaitForKey(Deadline deadline, ChannelKey& key)
{
    MutexLock lock(mutex_);
    changed_.WaitUntil(mutex_, deadline, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return key_ || Dead(); });
    key = key_.value_or(ChannelKey());
    return key_ && !Dead();
}

bool Peer::HasAnswered()
{
    MutexLock lock(mutex_);
    return key_.has_value();
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

void Peer::Forget(const PeerObject& object)
{
    MutexLock lock(objectsMutex_);
    const auto found = objects_.find(object.Id());
    if (found != objects_.end() && found->second == &object) {
        objects_.erase(found);
    }
    lock.Unlock();
    uint64_t references = object.Id() != kContextObject ? object.References() : 0;
    while (!Dead() && references > 0) {
        const uint64_t part = std::min(references, kMostReleased);
        const FrameHeader release = MakeHeader(FrameKind::RELEASE, object.Id(), part);
        SendOnLink(&release, sizeof(release));
        references -= part;
    }
}

std::vector<sptr<PeerObject>> Peer::Bury()
{
    MutexLock lock(mutex_);
    dead_.store(true, std::memory_order_release);
    const std::vector<sptr<Link>> links = std::exchange(links_, {});
    changed_.NotifyAll();
    lock.Unlock();
    channels_.Close();
    for (const sptr<Link>& link : links) {
        link->Shutdown();
    }
    std::vector<sptr<PeerObject>> objects;
    MutexLock objectsLock(objectsMutex_);
    for (const auto& [id, object] : objects_) {
        if (object->GetRefCounter()->TryIncStrong()) {
            objects.push_back(sptr<PeerObject>::Adopt(object));
        }
    }
    objectsLock.Unlock();
    for (const sptr<PeerObject>& object : objects) {
        object->NotifyDeath();
    }
    return objects;
}

}  // namespace VEXA::ipc
