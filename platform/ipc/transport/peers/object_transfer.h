// SPDX-License-Identifier: Apache-2.0
// Remote objects on their way: packing them into a frame's object table, and making objects of the entries that arrive.
#pragma once

#include <vector>

#include "peer.h"
#include "peer_directory.h"
#include "vexa/ipc/message_parcel.h"
#include "wire.h"

namespace VEXA::ipc {

// Holds the objects of a frame that is in flight. Packing makes the receiver a holder of each object before the frame
// leaves, so that an object can't end on the way. Unless that is committed, it is undone when the transfer ends.
class ObjectTransfer {
public:
    explicit ObjectTransfer(PeerDirectory& peers) : peers_(peers) {}
    ~ObjectTransfer() { Undo(); }
    ObjectTransfer(const ObjectTransfer&) = delete;
    ObjectTransfer& operator=(const ObjectTransfer&) = delete;

    // Writes the table behind the parcel's data, and its size into the header. False, and nothing is kept, when an
    // object can't travel or memory is short.
    bool Pack(MessageParcel& parcel, Peer& receiver, FrameHeader& header);
    // Says that the receiver has the frame.
    void Commit() { items_.clear(); }
    void Undo();

private:
    struct Item {
        sptr<IRemoteObject> object;  // kept alive while in flight
        sptr<Peer> owner;            // null for an object of this process
        ObjectEntry entry{};
    };

    bool PackOne(const sptr<IRemoteObject>& object, Item& item);

    PeerDirectory& peers_;
    EndpointId receiver_ = 0;
    std::vector<Item> items_;
};

// True when the sender of a frame holds all objects of this process that it names: its target, unless it is a reply,
// and those in its table.
bool HoldsAll(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender);
// Tells the same, but false only after reading all grants that have arrived: a third process may have made the sender a
// holder just now. The reactor's thread must not call this while it settles.
bool AwaitGrants(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender);

struct Unpacked {
    bool isSound = true;     // false: the sender does not hold what it names
    size_t unreachable = 0;  // objects of processes that are not there, and are not known to have died
};
// Fills the parcel's objects from the table that arrived with it; may be called again after std::bad_alloc. Every entry
// is taken, even where nobody will read it, because the sender has counted them all.
Unpacked UnpackObjects(
    PeerDirectory& peers, MessageParcel& parcel, const FrameHeader& header, const sptr<Peer>& sender);

// Makes `holder` a holder of this process's object, which `giver` has passed on to it. False when `giver` does not hold
// the object, or `holder` is not there.
bool GrantTo(PeerDirectory& peers, ObjectId id, const Peer& giver, EndpointId holder);

}  // namespace VEXA::ipc
