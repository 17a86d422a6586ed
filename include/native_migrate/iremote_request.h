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
    // Sends `data`, which holds the interface token and the arguments, and waits at most 8 seconds for `reply`; a
    // connection that has to be made may add a second, one that is lost half a second. From any thread, also at the
    // same time. 0: answered; 104: not sent, or not answered in time; other: the service's own result.
    virtual int32_t SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply) = 0;
};

}  // namespace VEXA::UpdateEngine
