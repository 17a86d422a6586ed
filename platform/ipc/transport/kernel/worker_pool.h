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

// What workers watch: one of them calls it when something has arrived.
class Served {
public:
    virtual ~Served() = default;
    virtual void Serve() = 0;
};

// Workers wait on one epoll set; the one that wakes reads the request, runs it and writes the reply, without a
// hand-over. There is always one worker waiting as long as the limit allows, so a request never waits for a thread to
// be started. A worker that waits for a request of its own does not count against the limit: a chain of nested calls
// between two processes always finds a thread. Any thread.
class WorkerPool {
public:
    explicit WorkerPool(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // Makes the descriptors; false when the kernel refuses. Threads start with the first task or event.
    bool Open();
    void SetLimit(size_t threads) { limit_.store(threads == 0 ? 1 : threads, std::memory_order_relaxed); }

    // Runs `task` on a worker: code that the transport does not know, and whatever may wait, is nothing for the
    // reactor.
    void Post(std::function<void()> task);
    // Runs the tasks that have been posted, on the calling thread.
    void RunTasks();

    // Tells the workers from now on, at each edge, when something arrives at the descriptor or, if it has output, when
    // there is room for it. `served` lives as long as the pool.
    bool Watch(int fd, bool hasOutput, Served& served);
    void Unwatch(int fd);
    // True while there are workers for the other descriptors, so that one worker may wait for a descriptor of its own.
    bool OthersWait() const { return waiting_.load(std::memory_order_relaxed) > 0; }

private:
    friend class ::VEXA::WorkerWait;

    void Run();
    void WakeForTask();
    // Starts another worker unless one is waiting, or as many as may are running.
    void KeepOneWaiting();

    std::atomic<size_t> limit_{kDefaultThreads};
    std::atomic<size_t> threads_{0};  // all workers
    std::atomic<size_t> waiting_{0};  // for events
    std::atomic<size_t> blocked_{0};  // in a WorkerWait

    const ThreadStarter startThread_;
    UniqueFd epoll_;
    UniqueFd taskEvent_;

    Mutex mutex_{LockRank::WorkerTasks};
    std::deque<std::function<void()>> tasks_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
