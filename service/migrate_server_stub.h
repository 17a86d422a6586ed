// SPDX-License-Identifier: Apache-2.0
// The service's side of the migration service's remote interface.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <future>
#include <optional>
#include <span>

#include "request_row.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::UpdateEngine {

// Reads requests, hands them to the engine or the hub, and writes the replies. A request whose fields are not all there
// or hold what they must not is answered with MIGRATE_BAD_ARGUMENT. No handler waits for copying or for a client.
class MigrateServerStub : public IPCObjectStub {
public:
    // Requests that come before the engine wait for it, kStartWait at most: then the result is MIGRATE_INTERNAL.
    // `controlGroup`: may change something, besides root and this process's user.
    MigrateServerStub(std::shared_future<RequestParts> parts, std::optional<gid_t> controlGroup = std::nullopt);

    // All requests, one row each.
    static std::span<const RequestRow> Rows();

    // 0; a service's result plus MIGRATE_RESULT_OFFSET; MIGRATE_UNREACHABLE for a wrong interface token; for a code
    // that is none of the interface's what the runtime's default handler says.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

private:
    const std::shared_future<RequestParts> parts_;
    const std::optional<gid_t> controlGroup_;
};

}  // namespace VEXA::UpdateEngine
