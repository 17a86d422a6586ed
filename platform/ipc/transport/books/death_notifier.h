// SPDX-License-Identifier: Apache-2.0
// The deaths that are still to be told, and telling them.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

#include "thread.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

// Runs recipients one after the other, each once for a notice, in the order in which they were posted. Past one that
// takes longer than kPatience (it looks the service up again, say) another thread goes on with the deaths of other
// processes, so that no death waits for what a stranger's recipient waits for. Those of one process always run one
// after the other, and the same recipient never runs twice at the same time. Its first thread starts with the first
// post. Any thread.
class DeathNotifier {
public:
    using Recipient = IRemoteObject::DeathRecipient;

    explicit DeathNotifier(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // `process` has died, and `object` with it.
    void Post(EndpointId process, const sptr<IRemoteObject>& object, sptr<Recipient> recipient);
    // Takes back one notice that has not begun; false when there is none.
    bool Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient);

    // Tells the next notice on the calling thread, if there is one that may be told now: what its threads do, and a
    // test without threads.
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
    // Runs the recipient of the next notice, with the lock let go.
    void TellNext() VEXA_REQUIRES(mutex_);
    // Sees to it that a thread is left for the notices when all others run recipients.
    void KeepOneIdle() VEXA_REQUIRES(mutex_);
    // The first notice that none of those that run stands in the way of.
    std::deque<Notice>::iterator Next() VEXA_REQUIRES(mutex_);
    // When those that run have had their time: in the past when none runs.
    Clock::time_point PatienceEnds() VEXA_REQUIRES(mutex_);

    const ThreadStarter startThread_;
    Mutex mutex_{LockRank::DeathNotices};
    CondVar changed_;
    std::deque<Notice> notices_ VEXA_GUARDED_BY(mutex_);
    std::vector<Running> running_ VEXA_GUARDED_BY(mutex_);
    size_t threads_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
