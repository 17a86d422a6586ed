// SPDX-License-Identifier: Apache-2.0
// Accepts connections of other processes.
#pragma once

#include <functional>

#include "connection_counts.h"
#include "reactor.h"

namespace VEXA::ipc {

class ConnectionListener : public EventHandler {
public:
    // Is given each connection that has been accepted and counted, on the reactor's thread.
    using Take = std::function<void(Connection connection)>;

    ConnectionListener(UniqueFd listener, Reactor& reactor, ConnectionCounts& counts, Take take);
    void OnEvents(uint32_t events) override;
    void OnTick(Deadline now) override;
    void AcceptAll() override;

private:
    // Takes the next connection in, or turns it away; false when there is none, or it has to wait.
    bool Accept();

    Reactor& reactor_;
    ConnectionCounts& counts_;
    const Take take_;
    Reactor::Ticks paused_;  // until the next tick: there is no descriptor or no memory for a connection
};

}  // namespace VEXA::ipc
