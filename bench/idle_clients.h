// SPDX-License-Identifier: Apache-2.0
// Client processes that have a callback registered and do nothing.
#pragma once

#include <cstddef>
#include <string>

#include "support/processes.h"

namespace VEXA::bench {

// The program behind IdleClients: makes so many clients, one after the other, and waits until it is killed, with which
// they end too. Returns 1, with a line that says which, when one was not served.
int RunIdleClients(size_t count);

class IdleClients {
public:
    // `program` runs RunIdleClients when it is started with --idle-clients and the count.
    IdleClients(const std::string& program, size_t count);

    // Waits until the service has all callbacks; false when it does not take them.
    bool AreServed() const;
    // Ends the clients, and waits until the service has noticed.
    bool End();

private:
    const size_t count_;
    test::ChildProcess parent_;
};

}  // namespace VEXA::bench
