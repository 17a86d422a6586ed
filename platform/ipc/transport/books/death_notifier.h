// SPDX-License-Identifier: Apache-2.0
// Tells death recipients that a process has died.
#pragma once

#include <chrono>
#include <deque>
#include <utility>
#include <vector>

#include "thread.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

// Runs recipients one after the other, each once for a notice, in the order in which the notices were posted. When one
// takes longer than kPatience (it looks the service up again, say), another thread goes on with the deaths of other
// processes, so that no death waits for what a stranger's recipient waits for. The recipients of one process always run
// one after the other, and the same recipient never runs twice at the same time. The first thread starts with the first
// notice. All operations may be called from any thread.
class DeathNotifier {
public:
    using Recipient = IRemoteObject::DeathRecipient;

    explicit DeathNotifier(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // Posts the notice that `process` has died, and `object` with it.
    void Post(EndpointId process, const sptr<IRemoteObject>& object, sptr<Recipient> recipient);
    // Takes back one notice that no thread has begun to tell; false when there is none.
    bool Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient);

    // Tells the next notice that may be told now on the calling thread; false when there is none. For tests without
    // threads.
    bool TellOne() VEXA_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;

    struct Notice {
        EndpointId process;
        sptr<IRemoteObject> object;
        sptr<Recipient> recipient;
    };
    struct Running {
        EndpointId process;
        const Recipient* recipient;
        Clock::time_point since;
    };

    void Run();
    // Does the same, and lets the mutex go while the recipient runs.
    bool TellNext() VEXA_REQUIRES(mutex_);
    // Starts a thread when all others run recipients, so that one is left for the notices that wait.
    void KeepOneIdle() VEXA_REQUIRES(mutex_);
    // Finds the first notice that need not wait for a recipient that runs.
    std::deque<Notice>::iterator Next() VEXA_REQUIRES(mutex_);

    const ThreadStarter startThread_;
    Mutex mutex_{LockRank::DeathNotices};
    CondVar changed_;
    std::deque<Notice> notices_ VEXA_GUARDED_BY(mutex_);
    std::vector<Running> running_ VEXA_GUARDED_BY(mutex_);
    size_t threads_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
