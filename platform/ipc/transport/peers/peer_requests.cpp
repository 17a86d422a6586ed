// SPDX-License-Identifier: Apache-2.0
#include "peer_requests.h"

#include <utility>

#include "call_context.h"
#include "parcel_access.h"
#include "peer_log.h"
#include "vexa/ipc/message_option.h"

namespace VEXA::ipc {

bool PeerRequests::Answer(MessageParcel& request, const FrameHeader& header, MessageParcel& reply)
{
    if (peer_->Dead()) {
        return false;
    }
    int32_t result = Dispatch(request, header, reply);
    FrameHeader answer = MakeHeader(FrameKind::REPLY, 0, header.extra);
    if (result == IPC_OK || reply.GetDataSize() > 0) {
        answer.bytes = static_cast<uint32_t>(reply.GetDataSize());
        if (!ParcelAccess::Objects(reply).empty() && !inFlight_.Pack(reply, *peer_, answer)) {
            answer.bytes = 0;
            result = IPC_FAILED;
        }
    }
    answer.code = static_cast<uint32_t>(result);
    SetHeader(reply, answer);
    return true;
}

int32_t PeerRequests::Dispatch(MessageParcel& request, const FrameHeader& header, MessageParcel& reply)
{
    sptr<IRemoteObject> object = peers_.Objects().Find(header.target, peer_->Id());
    if (object == nullptr || header.objects > 0) {
        AwaitGrants(peers_, request, header, *peer_);
        object = peers_.Objects().Find(header.target, peer_->Id());
    }
    if (header.objects > 0 && !UnpackObjects(peers_, request, header, peer_).isSound) {
        return IPC_REFUSED;
    }
    if (object == nullptr) {
        if (!std::exchange(hasRefused_, true)) {
            IPC_LOGE_OF(&peer_->Who(), "process %{public}d called an object that it does not hold", peer_->Who().pid);
        }
        return IPC_REFUSED;
    }
    MessageOption option;
    return CarryOut(*object, header.code, request, reply, option, peer_->Who(), header.extra);
}

}  // namespace VEXA::ipc
