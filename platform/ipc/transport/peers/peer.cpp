// SPDX-License-Identifier: Apache-2.0
#include "peer.h"

#include <algorithm>
#include <new>
#include <utility>

#include "transport/limits.h"

namespace VEXA::ipc {

PeerObject::PeerObject(const sptr<Peer>& owner, ObjectId id)
    : IRemoteObject(std::u16string()), owner_(owner), id_(id), generation_(owner->Generation())
{}

Peer::Peer(EndpointId self, EndpointId id, MakeObject makeObject, ByteBudget& bytes)
    : self_(self),
      who_{{}, id, {}},
      issuedKey_{RandomNumber(), RandomNumber()},
      makeObject_(std::move(makeObject)),
      credit_([this](const void* frame, size_t size) { return SendOnLink(frame, size); }),
      debt_(bytes, [this](FrameKind kind, uint64_t target, uint64_t extra) {
          const FrameHeader told = MakeHeader(kind, target, extra);
          SendOnLink(&told, sizeof(told));
      })
{}

void Peer::Learn(const sptr<Link>& link)
{
    if (who_.pid <= 0) {
        who_.groups = GroupsOf(link->Who(), link->Fd());
        static_cast<Credentials&>(who_) = link->Who();  // the endpoint is read meanwhile
    }
}

void Peer::Enter(State state, const sptr<Link>& link)
{
    link_ = link;
    if ((link != nullptr) != IsConnected()) {
        generation_.fetch_add(1, std::memory_order_acq_rel);
    }
    state_.store(state, std::memory_order_release);
    changed_.NotifyAll();
}

bool Peer::Await(const sptr<Link>& link)
{
    MutexLock lock(mutex_);
    if (state_ != State::UNKNOWN) {
        return false;
    }
    Enter(State::ASKED, link);
    return true;
}

bool Peer::OnHello(const sptr<Link>& link)
{
    MutexLock lock(mutex_);
    if (state_ == State::ANSWERED || (state_ == State::ASKED && self_ > Id())) {
        return false;
    }
    Learn(link);
    if (link_ != nullptr) {
        link_->Shutdown();
    }
    const HelloFrame answer = MakeHello(FrameKind::HELLO_REPLY, ConnectionUse::LINK, self_, issuedKey_);
    link->Send(&answer, sizeof(answer));
    Enter(State::ANSWERED, link);
    return true;
}

bool Peer::OnReply(const sptr<Link>& link, bool wasUnknown, const ChannelKey& key)
{
    MutexLock lock(mutex_);
    if (Stands() || Dead() || (link_ != link && !wasUnknown)) {
        return false;
    }
    Learn(link);
    // By answering, the peer has chosen this connection. The other one is not needed any more.
    if (link_ != nullptr && link_ != link) {
        link_->Shutdown();
    }
    const HelloFrame own = MakeHello(FrameKind::KEY, ConnectionUse::LINK, self_, issuedKey_);
    link->Send(&own, sizeof(own));
    Stand(link, key);
    return true;
}

bool Peer::OnKey(const sptr<Link>& link, const ChannelKey& key)
{
    MutexLock lock(mutex_);
    const bool isExpected = state_ == State::ANSWERED && link_ == link;
    if (isExpected) {
        Stand(link, key);
    }
    return isExpected;
}

void Peer::Stand(const sptr<Link>& link, const ChannelKey& key)
{
    key_ = key;
    otherVersion = 0;
    if (!outbox_.empty()) {
        link->Send(outbox_.data(), outbox_.size());
        std::vector<uint8_t>().swap(outbox_);
    }
    Enter(State::STANDS, link);
}

bool Peer::IsWith(const Credentials& who)
{
    MutexLock lock(mutex_);
    return link_ != nullptr && link_->Who().IsSameAs(who);
}

bool Peer::OnEnd(const sptr<Link>& link, bool isDeath)
{
    MutexLock lock(mutex_);
    const bool wasCurrent = link_ == link;
    if (wasCurrent) {
        Enter(isDeath ? State::DEAD : State::UNKNOWN, nullptr);
    }
    return wasCurrent;
}

bool Peer::SendOnLink(const void* frame, size_t size)
{
    MutexLock lock(mutex_);
    if (Stands()) {
        const sptr<Link> link = link_;
        lock.Unlock();
        return link->Send(frame, size);
    }
    if (Dead() || outbox_.size() + size > kMostUnread) {
        return false;
    }
    const uint8_t* const bytes = static_cast<const uint8_t*>(frame);
    // As with a link, a destructor may be the sender.
    return RetryForMemory([&]() VEXA_NO_THREAD_SAFETY_ANALYSIS { outbox_.insert(outbox_.end(), bytes, bytes + size); });
}

bool Peer::WaitLinkFlushed(Deadline deadline)
{
    MutexLock lock(mutex_);
    if (!changed_.WaitUntil(mutex_, deadline, [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return outbox_.empty(); })) {
        return false;
    }
    const sptr<Link> link = Stands() ? link_ : nullptr;
    lock.Unlock();
    return link == nullptr || link->WaitFlushed(deadline);
}

bool Peer::WaitForKey(Deadline deadline, uint32_t generation, ChannelKey& key)
{
    MutexLock lock(mutex_);
    changed_.WaitUntil(mutex_, deadline, [&] { return Stands() || Generation() != generation; });
    key = key_;
    return Stands() && Generation() == generation;
}

bool Peer::WaitUntilDead(std::chrono::milliseconds limit)
{
    MutexLock lock(mutex_);
    return changed_.WaitFor(mutex_, limit, [this] { return Dead(); }) && who_.pid > 0;
}

sptr<IRemoteObject> Peer::Object(ObjectId id)
{
    sptr<PeerObject> former;  // both may be last references, which go after the lock
    sptr<PeerObject> object;
    MutexLock lock(objectsMutex_);
    const auto [entry, isNew] = objects_.try_emplace(id);
    PeerObject*& known = entry->second.object;
    if (!isNew && known->GetRefCounter()->TryIncStrong()) {
        former = sptr<PeerObject>::Adopt(known);
        if (former->IsCurrent()) {
            former->CountReference();
            return former;
        }
        former->NotifyDeath();
    }
    try {
        object = makeObject_(sptr<Peer>(this), id);
    } catch (const std::bad_alloc&) {
    }
    if (object == nullptr) {
        if (isNew) {
            objects_.erase(entry);
        }
        throw std::bad_alloc();
    }
    known = object.GetRefPtr();
    return object;
}

void Peer::Forget(const PeerObject& object)
{
    MutexLock lock(objectsMutex_);
    const auto found = objects_.find(object.Id());
    if (found != objects_.end() && found->second.object == &object) {
        objects_.erase(found);
    }
    lock.Unlock();
    uint64_t references = object.Id() != kContextObject ? object.References() : 0;
    while (!Dead() && references > 0) {
        const uint64_t part = std::min(references, kMostReleased);
        const FrameHeader release = MakeHeader(FrameKind::RELEASE, object.Id(), part);
        credit_.SendBehind(&release, sizeof(release));
        references -= part;
    }
}

Peer::Objects Peer::TellObjects()
{
    Objects told;
    MutexLock lock(objectsMutex_);
    told.swap(objects_);
    for (auto& [id, known] : told) {
        if (known.object->GetRefCounter()->TryIncStrong()) {
            known.held = sptr<PeerObject>::Adopt(known.object);
        }
    }
    lock.Unlock();
    for (const auto& [id, known] : told) {
        if (known.held != nullptr) {
            known.held->NotifyDeath();
        }
    }
    return told;
}

Peer::Objects Peer::Bury()
{
    MutexLock lock(mutex_);
    Enter(State::DEAD, nullptr);
    std::vector<uint8_t>().swap(outbox_);
    lock.Unlock();
    channels_.Close();
    credit_.Drop();
    debt_.Drop();
    return TellObjects();
}

}  // namespace VEXA::ipc
