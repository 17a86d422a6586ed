// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/iremote_broker.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA {

// The base of a stub class for INTERFACE: an original object that is its own interface.
template <typename INTERFACE>
class IRemoteStub : public IPCObjectStub, public INTERFACE {
public:
    IRemoteStub() : IPCObjectStub(INTERFACE::GetDescriptor()) {}

    sptr<IRemoteObject> AsObject() override { return sptr<IRemoteObject>(this); }
    sptr<IRemoteBroker> AsInterface() override { return sptr<IRemoteBroker>(this); }
};

}  // namespace VEXA
