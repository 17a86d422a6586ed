// SPDX-License-Identifier: Apache-2.0
// The threads that carry out incoming requests.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <utility>

#include "socket.h"
#include "thread.h"
#include "transport/limits.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {

// Is watched by the workers, one of which calls it when something has arrived.
class Served {
public:
    virtual ~Served() = default;
    virtual void Serve() = 0;
};

// Workers wait on one epoll set; the one that wakes reads the request, runs it and writes the reply, without a
// hand-over. One worker is always waiting as long as the limit allows, so a request never waits for a thread to be
// started. A worker that waits for a request of its own does not count against the limit: a chain of nested calls
// between two processes always finds a thread. All operations may be called from any thread.
class WorkerPool {
public:
    explicit WorkerPool(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // Makes the descriptors; false when the kernel refuses. Threads start with the first task or event.
    bool Open();
    void SetLimit(size_t threads) { limit_.store(threads == 0 ? 1 : threads, std::memory_order_relaxed); }

    // Runs `task` on a worker, or at once where memory is too short to keep it. Code that the transport does not know,
    // and whatever may wait, would hold up the reactor.
    void Post(std::function<void()> task);
    // Runs the tasks that have been posted, on the calling thread.
    void RunTasks();

    // Tells a worker, at each edge, when something arrives at the descriptor or, where it has output, when there is
    // room for that. `served` lives as long as the pool.
    bool Watch(int fd, bool hasOutput, Served& served);
    void Unwatch(int fd);
    // True while workers wait for all descriptors, so that this one may wait for a descriptor of its own.
    bool OthersWait() const { return waiting_.load(std::memory_order_relaxed) > 0; }

private:
    friend class ::VEXA::WorkerWait;

    void Run();
    // Starts another worker unless one is waiting, or as many as may are running.
    void KeepOneWaiting();

    std::atomic<size_t> limit_{kDefaultThreads};
    std::atomic<size_t> threads_{0};  // all workers
    std::atomic<size_t> waiting_{0};  // for events
    std::atomic<size_t> blocked_{0};  // in a WorkerWait

    const ThreadStarter startThread_;
    UniqueFd epoll_;
    UniqueFd taskEvent_;  // each write is an edge, which wakes one worker; the counter is never read

    Mutex mutex_{LockRank::WorkerTasks};
    std::deque<std::function<void()>> tasks_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
