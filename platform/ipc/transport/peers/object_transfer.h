// SPDX-License-Identifier: Apache-2.0
// Remote objects on their way: packing them into a frame's object table, and making objects of the entries that arrive.
#pragma once

#include <vector>

#include "peer.h"
#include "peer_directory.h"
#include "vexa/ipc/message_parcel.h"
#include "wire.h"

namespace VEXA::ipc {

// What a frame in flight holds. Packing makes the receiver a holder of each object before the frame leaves, so that an
// object can't end on the way. What is not committed by then is taken back when the transfer ends.
class ObjectTransfer {
public:
    explicit ObjectTransfer(PeerDirectory& peers) : peers_(peers) {}
    ~ObjectTransfer() { Undo(); }
    ObjectTransfer(const ObjectTransfer&) = delete;
    ObjectTransfer& operator=(const ObjectTransfer&) = delete;

    // Writes the table behind the parcel's data and its size into the header. False, and nothing kept, when an object
    // can't travel or memory is short.
    bool Pack(MessageParcel& parcel, Peer& receiver, FrameHeader& header);
    // The receiver is known to have the frame.
    void Commit() { items_.clear(); }
    void Undo();

private:
    struct Item {
        sptr<IRemoteObject> object;  // kept alive while in flight
        sptr<Peer> owner;            // null for an object of this process
        ObjectEntry entry{};
        EndpointId receiver = 0;
    };

    bool PackOne(const sptr<IRemoteObject>& object, Peer& receiver, Item& item);

    PeerDirectory& peers_;
    std::vector<Item> items_;
};

// True when the sender of a frame holds all objects of this process that it names: its target, unless it is a reply,
// and those in its table.
bool HoldsAll(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender);
// The same, but false only once all grants are read that have arrived: a third process may have made the sender a
// holder just now. On the reactor's thread not while it settles.
bool AwaitGrants(PeerDirectory& peers, Parcel& frame, const FrameHeader& header, const Peer& sender);

// Fills the parcel's objects from the table that arrived with it. Every entry is taken, also where nobody will read
// it: the sender has counted them all.
struct Unpacked {
    bool isSound = true;     // false: memory is short, or the sender does not hold what it names
    size_t unreachable = 0;  // objects of processes that are not there, and are not known to have been
};
Unpacked UnpackObjects(
    PeerDirectory& peers, MessageParcel& parcel, const FrameHeader& header, const sptr<Peer>& sender);

// `giver` has passed this process's object on to `holder`. False when `giver` does not hold it, or `holder` is not
// there.
bool GrantTo(PeerDirectory& peers, ObjectId id, const Peer& giver, EndpointId holder);

}  // namespace VEXA::ipc
