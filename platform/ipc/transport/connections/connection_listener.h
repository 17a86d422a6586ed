// SPDX-License-Identifier: Apache-2.0
// Accepts connections of other processes.
#pragma once

#include <functional>

#include "connection_counts.h"
#include "reactor.h"

namespace VEXA::ipc {

class ConnectionListener : public EventHandler {
public:
    // What is done with a connection that has been accepted and counted, on the reactor's thread.
    using Take = std::function<void(Connection connection)>;

    ConnectionListener(UniqueFd listener, Reactor& reactor, ConnectionCounts& counts, Take take);
    void OnEvents(uint32_t events) override;
    void OnTick(Deadline now) override;
    void AcceptAll() override;

private:
    // False when there is none, or none can be taken in.
    bool Accept();
    bool TurnAway();

    Reactor& reactor_;
    ConnectionCounts& counts_;
    const Take take_;
    // Given up for a moment when the process has run out of descriptors, to turn the newest connection away with.
    UniqueFd spare_;
    Reactor::Ticks paused_;  // nothing can be accepted now; tried again with the next tick
};

}  // namespace VEXA::ipc
