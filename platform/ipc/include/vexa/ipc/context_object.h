// SPDX-License-Identifier: Apache-2.0
// The context object: the one object of a runtime directory that every process may call without having been handed it.
// The manager daemon publishes it; everything else is reached through it.
#pragma once

#include <functional>
#include <string>

#include "vexa/base/export.h"
#include "vexa/base/refbase.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA {

// The runtime directory of the system's manager.
inline constexpr char kSystemRuntimeDirectory[] = "/run/vexa";
// Returns the runtime directory of the caller's own manager, $XDG_RUNTIME_DIR/vexa; empty when that variable is not
// set.
VEXA_EXPORT std::string UserRuntimeDirectory();
// Returns the directory of this process's sockets: VEXA_RUNTIME_DIR; else UserRuntimeDirectory where that belongs to
// the caller and has a samgr.sock; else kSystemRuntimeDirectory. It is decided once; a relative name is one in the
// working directory of then. A program that has more rights than its caller takes no directory from the environment.
VEXA_EXPORT const std::string& RuntimeDirectory();

// Returns the context object, null when no process publishes one now. Blocks for the connection only, at most a second.
// After the publisher's death the next call connects to the process that has taken its place.
VEXA_EXPORT sptr<IRemoteObject> GetContextObject();

// Why the calling thread's last call of GetContextObject found none: the socket that it tried, and the system's reason.
// Empty when it found one or did not try.
VEXA_EXPORT std::string ContextObjectFailure();

enum class PublishResult {
    DONE,
    TAKEN,   // a living process publishes one already
    FAILED,  // the runtime directory can't be used; the log says which call failed, and why
};

// Publishes an object of this process as the context object until the process ends. Creates the directory, and puts it
// back with all that belongs there when it is removed. When another process has published its own by then, calls
// `onReplaced` once, on a pool thread: this process's can't be reached any more.
VEXA_EXPORT PublishResult PublishContextObject(
    const sptr<IRemoteObject>& object, std::function<void()> onReplaced = [] {});

// Runs `action` on a pool thread whenever a context object has been published anew, from now until the process ends: at
// once as a rule; within about a second where the runtime directory was removed meanwhile or the kernel can't watch it.
// It may run without cause, so `action` looks for itself. A process has one action; a later one replaces it.
VEXA_EXPORT void OnContextObjectPublished(std::function<void()> action);

}  // namespace VEXA
