// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/ipc/iremote_broker.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/ipc/peer_holder.h"

namespace VEXA {

// The base of a proxy class for INTERFACE.
template <typename INTERFACE>
class IRemoteProxy : public PeerHolder, public INTERFACE {
public:
    explicit IRemoteProxy(const sptr<IRemoteObject>& object) : PeerHolder(object) {}
    ~IRemoteProxy() override = default;

    sptr<IRemoteObject> AsObject() override { return Remote(); }
};

}  // namespace VEXA
