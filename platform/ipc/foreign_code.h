// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>

#include "call_context.h"
#include "peer_log.h"

namespace VEXA::ipc {

// Runs code that this library does not know. An exception that leaves it is logged with `what` ran, and goes no
// further; false then.
template <typename Code>
bool RunForeign(const char* what, const Code& code)
{
    try {
        code();
        return true;
    } catch (const std::exception& error) {
        IPC_LOGE_OF(CurrentCaller(), "%{public}s threw: %{public}s", what, error.what());
    } catch (...) {
        IPC_LOGE_OF(CurrentCaller(), "%{public}s threw", what);
    }
    return false;
}

}  // namespace VEXA::ipc
