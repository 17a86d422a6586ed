// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "vexa/base/refbase.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::UpdateEngine {

// Something that takes requests by code.
class IRemoteRequest : public virtual RefBase {
public:
    ~IRemoteRequest() override = default;
    // Sends `data`, which holds the interface token and the arguments, and waits for `reply`.
    virtual int32_t SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply) = 0;
};

}  // namespace VEXA::UpdateEngine
