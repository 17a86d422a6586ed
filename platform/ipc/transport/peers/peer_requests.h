// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "object_transfer.h"
#include "peer.h"
#include "peer_directory.h"
#include "server_channel.h"

namespace VEXA::ipc {

// Carries out the requests that come from a peer on one channel.
class PeerRequests : public RequestHandler {
public:
    PeerRequests(PeerDirectory& peers, const sptr<Peer>& peer) : peers_(peers), peer_(peer), inFlight_(peers) {}

    void OnLastReplyRead() override { inFlight_.Commit(); }
    bool Answer(MessageParcel& request, const FrameHeader& header, MessageParcel& reply) override;

private:
    int32_t Dispatch(MessageParcel& request, const FrameHeader& header, MessageParcel& reply);

    PeerDirectory& peers_;
    const sptr<Peer> peer_;
    ObjectTransfer inFlight_;  // the objects of the last reply, until the reply is known to have arrived
    bool hasRefused_ = false;  // a refusal is logged once for a connection
};

}  // namespace VEXA::ipc
