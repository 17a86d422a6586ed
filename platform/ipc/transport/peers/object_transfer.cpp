// SPDX-License-Identifier: Apache-2.0
#include "object_transfer.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ipc_log.h"
#include "parcel_access.h"
#include "trace.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

ObjectEntry EntryOf(Parcel& frame, const FrameHeader& header, size_t index)
{
    ObjectEntry entry;
    std::memcpy(&entry, ParcelAccess::Data(frame) + header.bytes + index * sizeof(entry), sizeof(entry));
    return entry;
}

void Trace(bool isOut, Peer& peer, const FrameHeader& header, const sptr<IRemoteObject>& object, ObjectId id)
{
    if (IsTraced() && object != nullptr) {
        const PeerObject* const proxy = dynamic_cast<const PeerObject*>(object.GetRefPtr());
        TraceObject({isOut, isOut == (header.kind != FrameKind::REPLY), peer.Pid(), header.extra}, *object,
            proxy != nullptr ? proxy->Owner()->Pid() : getpid(), id);
    }
}

}  // namespace

bool ObjectTransfer::PackOne(const sptr<IRemoteObject>& object, Item& item)
{
    item.object = object;
    if (!object->IsProxyObject()) {
        item.entry = {peers_.Self(), peers_.AddHolder(object, receiver_)};
        return true;
    }
    const PeerObject* const proxy = dynamic_cast<const PeerObject*>(object.GetRefPtr());
    if (proxy == nullptr) {
        IPC_LOGE("an object that is neither of this process nor of the transport can't be sent");
        return false;
    }
    item.entry = {proxy->Owner()->Id(), proxy->Id()};
    item.owner = proxy->Owner();
    if (item.entry.owner == receiver_ || item.owner->Dead()) {
        return true;
    }
    // The owner hears of the new holder from this process, which holds the object, and before the new holder can speak:
    // the grant is with the kernel before the frame leaves. An owner that can't be told any more is ending, and the
    // receiver finds it dead. One that can't be reached now may count the receiver's references later, so it must know.
    if (!peers_.PeerAt(item.entry.owner)->IsConnected()) {
        return false;
    }
    const FrameHeader grant = MakeHeader(FrameKind::GRANT, proxy->Id(), receiver_);
    return !item.owner->SendOnLink(&grant, sizeof(grant)) ||
           item.owner->WaitLinkFlushed(std::chrono::steady_clock::now() + kFlushWait);
}

bool ObjectTransfer::Pack(MessageParcel& parcel, Peer& receiver, FrameHeader& header)
{
    const std::vector<sptr<IRemoteObject>>& objects = ParcelAccess::Objects(parcel);
    uint8_t* const table = ParcelAccess::AppendRaw(parcel, objects.size() * sizeof(ObjectEntry));
    // Shortage is waited out here: when a reply is packed, the request has been carried out and can't be repeated.
    if (table == nullptr || !RetryForMemory([&] { items_.reserve(objects.size()); })) {
        return false;
    }
    receiver_ = receiver.Id();
    for (const sptr<IRemoteObject>& object : objects) {
        Item& item = items_.emplace_back();
        bool packed = false;
        RetryForMemory([&] { packed = PackOne(object, item); });
        std::memcpy(table + (items_.size() - 1) * sizeof(ObjectEntry), &item.entry, sizeof(ObjectEntry));
        if (!packed) {
            Undo();
            return false;
        }
        Trace(true, receiver, header, object, item.entry.id);
    }
    header.objects = static_cast<uint16_t>(objects.size());
    return true;
}

void ObjectTransfer::Undo()
{
    for (const Item& item : items_) {
        if (item.owner == nullptr) {
            peers_.AdjustHolder(item.entry.id, receiver_, -1);
        } else if (item.entry.owner != receiver_) {
            const FrameHeader back = MakeHeader(FrameKind::UNGRANT, item.entry.id, receiver_);
            item.owner->SendOnLink(&back, sizeof(back));
        }
    }
    items_.clear();
}

bool HoldsAll(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender)
{
    if (header.kind != FrameKind::REPLY && peers.Objects().Find(header.target, sender.Id()) == nullptr) {
        return false;
    }
    for (size_t i = 0; i < header.objects; ++i) {
        const ObjectEntry entry = EntryOf(frame, header, i);
        if (entry.owner == peers.Self() && peers.Objects().Find(entry.id, sender.Id()) == nullptr) {
            return false;
        }
    }
    return true;
}

bool AwaitGrants(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender)
{
    if (HoldsAll(peers, frame, header, sender)) {
        return true;
    }
    peers.Loop().Settle(kSettleWait);
    return HoldsAll(peers, frame, header, sender);
}

Unpacked UnpackObjects(PeerDirectory& peers, MessageParcel& parcel, const FrameHeader& header, const sptr<Peer>& sender)
{
    std::vector<sptr<IRemoteObject>>& objects = ParcelAccess::Objects(parcel);
    objects.reserve(header.objects);
    Unpacked result;
    // An earlier call may have run out of memory. This one goes on behind the objects that it has made.
    for (size_t i = objects.size(); i < header.objects; ++i) {
        const ObjectEntry entry = EntryOf(parcel, header, i);
        sptr<IRemoteObject> object;
        if (entry.owner == peers.Self()) {
            object = peers.Objects().Find(entry.id, sender->Id());
        } else if (entry.owner == sender->Id()) {
            object = sender->Object(entry.id);
        } else if (entry.owner != 0) {
            const sptr<Peer> owner = peers.PeerAt(entry.owner);
            result.unreachable += !owner->IsConnected() && !peers.HasDied(entry.owner) ? 1 : 0;
            object = owner->Object(entry.id);
        }
        Trace(false, *sender, header, object, entry.id);
        objects.push_back(std::move(object));
    }
    result.isSound = std::ranges::find(objects, nullptr) == objects.end();
    return result;
}

bool GrantTo(PeerDirectory& peers, ObjectId id, const Peer& giver, EndpointId holder)
{
    if (holder == 0 || holder == peers.Self() || peers.Objects().Find(id, giver.Id()) == nullptr) {
        return false;
    }
    // The new holder is connected to, so that this process hears of its death even if it never uses the object. One
    // that is not there is not known afterwards.
    peers.PeerAt(holder);
    if (peers.KnownPeer(holder) == nullptr) {
        return false;
    }
    peers.AdjustHolder(id, holder, 1);
    return true;
}

}  // namespace VEXA::ipc
