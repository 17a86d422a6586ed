// SPDX-License-Identifier: Apache-2.0
// Accepts connections of other processes.
#pragma once

#include "reactor.h"

namespace VEXA::ipc {

class ConnectionListener : public EventHandler {
public:
    explicit ConnectionListener(UniqueFd listener);
    ~ConnectionListener() override;
    void OnEvents(uint32_t events) override;
    void OnTick(Deadline now) override;
    void AcceptAll() override;

private:
    // False when there is none, or none can be taken in.
    bool Accept();

    // Given up for a moment when the process has run out of descriptors, to turn the newest connection away with.
    UniqueFd spare_;
    bool paused_ = false;  // nothing can be accepted now; tried again with the next tick
};

}  // namespace VEXA::ipc
