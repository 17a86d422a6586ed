// SPDX-License-Identifier: Apache-2.0
// The threads that tell death recipients.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

// Runs recipients one after the other, each once for a notice, in the order in which they were posted. Past one that
// takes long (it looks the service up again, say) another thread goes on with the deaths of other processes, so that no
// death waits for what a stranger's recipient waits for. Those of one process always run one after the other, and the
// same recipient never runs twice at the same time. Its first thread starts with the first post. Any thread.
class DeathNotifier {
public:
    using Recipient = IRemoteObject::DeathRecipient;

    // A recipient that takes longer than this no longer holds up the others: half of the 100 ms in which a process is
    // to hear of a death.
    static constexpr std::chrono::milliseconds kPatience{50};
    // At most so many run at the same time; with all of them held up the rest waits.
    static constexpr size_t kMostThreads = 8;

    // `process` has died, and `object` with it.
    void Post(EndpointId process, const sptr<IRemoteObject>& object, sptr<Recipient> recipient);
    // Takes back one notice that has not begun; false when there is none.
    bool Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient);

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
    static void Tell(const Notice& notice);
    // Sees to it that a thread is left for the notices when all others run recipients.
    void KeepOneIdle() VEXA_REQUIRES(mutex_);
    // The first notice that none of those that run stands in the way of.
    std::deque<Notice>::iterator Next() VEXA_REQUIRES(mutex_);
    // When those that run have had their time: in the past when none runs.
    Clock::time_point PatienceEnds() VEXA_REQUIRES(mutex_);

    Mutex mutex_;
    CondVar changed_;
    std::deque<Notice> notices_ VEXA_GUARDED_BY(mutex_);
    std::vector<Running> running_ VEXA_GUARDED_BY(mutex_);
    size_t threads_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
