// SPDX-License-Identifier: Apache-2.0
// This process as a member of a runtime directory.
#pragma once

#include <atomic>
#include <memory>

#include "transport.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// A process has one. All operations may be called from any thread.
class IpcProcess {
public:
    static IpcProcess& Get();

    // Returns the transport, which its first use starts; null, with a log line the first time, when that can't be done.
    // A child of fork that starts it gets its own, unless its parent had one.
    Transport* Start();
    // Returns the transport where it has been started, else null.
    Transport* Running() const { return running_; }

    // Returns the publisher of the context object, null when there is none. Then it does not start the transport.
    sptr<Peer> ContextPeer();
    PublishResult PublishContext(const sptr<IRemoteObject>& object, std::function<void()> onReplaced);
    void SetMaxWorkThreads(size_t count);

private:
    IpcProcess() = default;
    static void AtExit();

    std::atomic<Transport*> running_{nullptr};
    std::atomic<size_t> maxWorkThreads_{kDefaultThreads};
    Mutex mutex_{LockRank::ProcessStart};  // held while starting
    bool hasWarned_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::ipc
