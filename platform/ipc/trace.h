// SPDX-License-Identifier: Apache-2.0
// The trace that VEXA_TRACE asks for: a line for each request, reply, passed object and death. docs/tracing.md reads
// one. Nothing here throws: a line for which there is no memory is left out.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "vexa/ipc/message_parcel.h"

namespace VEXA::ipc {

struct TraceOutput {
    int fd = -1;
    bool isJson = false;
};
// The first call reads the variable.
const TraceOutput& Traced();
inline bool IsTraced()
{
    return Traced().fd >= 0;
}

// On the way to or from a peer, for a request that this process or the peer has sent.
struct TracePoint {
    bool isOut;
    bool isOwnRequest;
    pid_t peer;       // -1 while it is unknown
    uint64_t number;  // that the sender has given the request; 0 for none
};

class RequestTrace {
public:
    RequestTrace(const TracePoint& point, uint32_t code, bool isOneWay, MessageParcel& data) noexcept;
    // Returns the result. Of a one-way request that is sent only a failure is one.
    int32_t End(int32_t result, MessageParcel& reply) noexcept;

private:
    TracePoint point_;
    const bool isOneWay_;
    std::string operation_;
    std::string_view replyFields_;
    std::chrono::steady_clock::time_point start_;
};

void TraceObject(const TracePoint& point, const IRemoteObject& object, pid_t owner, uint64_t id) noexcept;
void TraceDeath(pid_t peer) noexcept;

}  // namespace VEXA::ipc
