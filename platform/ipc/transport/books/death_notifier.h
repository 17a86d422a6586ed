// SPDX-License-Identifier: Apache-2.0
// Tells death recipients that a process has died.
#pragma once

#include <chrono>
#include <list>
#include <utility>

#include "thread.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::ipc {

// Runs recipients one after the other, each once for a notice, in the order in which the notices were posted. When one
// takes longer than kPatience (it looks the service up again, say), another thread goes on with the others, which do
// not wait for what a stranger's recipient waits for. The same recipient never runs twice at the same time. All
// operations may be called from any thread.
class DeathNotifier {
public:
    using Clock = std::chrono::steady_clock;
    using Recipient = IRemoteObject::DeathRecipient;

    // A recipient that waits for a death, then the notice of it, then one that runs: allocated once, so that nothing
    // can be lacking when the death comes.
    struct Notice {
        sptr<IRemoteObject> object;  // the one that has died
        sptr<Recipient> recipient;
        Clock::time_point since{};  // when it began to run
    };
    using Notices = std::list<Notice>;

    explicit DeathNotifier(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // Starts the first thread, which is there before a death can come. False, with errno, when that can't be done.
    bool Start();
    // Ends that thread again, and waits for its end.
    void Stop();

    // Takes over all of the notices.
    void Post(Notices& notices);
    // Takes back one notice that no thread has begun to tell; false when there is none.
    bool Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient);

    // Tells the next notice that may be told now on the calling thread; false when there is none. For tests without
    // threads.
    bool TellOne() VEXA_EXCLUDES(mutex_);

private:
    void Run();
    // Does the same, and lets the mutex go while the recipient runs.
    bool TellNext() VEXA_REQUIRES(mutex_);
    // Starts a thread when all others run recipients, so that one is left for the notices that wait.
    void KeepOneIdle() VEXA_REQUIRES(mutex_);
    // Finds the first notice whose recipient does not run.
    Notices::iterator Next() VEXA_REQUIRES(mutex_);

    const ThreadStarter startThread_;
    Mutex mutex_{LockRank::DeathNotices};
    CondVar changed_;
    Notices notices_ VEXA_GUARDED_BY(mutex_);
    Notices running_ VEXA_GUARDED_BY(mutex_);  // the latest last
    size_t threads_ VEXA_GUARDED_BY(mutex_) = 0;
    bool stopped_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::ipc
