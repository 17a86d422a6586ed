// SPDX-License-Identifier: Apache-2.0
// The threads that carry out incoming requests.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <utility>

#include "foreign_code.h"
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

struct Worker;

// Workers wait on one epoll set; the one that wakes reads the request, runs it and writes the reply, without a
// hand-over. One worker is always waiting as long as the limit allows, so a request never waits for a thread to be
// started. A worker that waits for a request of its own does not count against the limit: a chain of nested calls
// between two processes always finds a thread. No process has all the threads: the last one is left for the others, and
// while others are served, a process has half of the threads at most. All operations may be called from any thread.
class WorkerPool {
public:
    explicit WorkerPool(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // Makes the descriptors; false when the kernel refuses. Threads start with the first task or event.
    bool Open();
    void SetLimit(size_t threads) { limit_.store(threads == 0 ? 1 : threads, std::memory_order_relaxed); }

    // Runs `task` on a worker, or at once where memory is too short to keep it. Code that the transport does not know,
    // and whatever may wait, would hold up the reactor.
    void Post(std::function<void()> task);
    // Drops references to objects on a worker: where they are the last, the objects' code must not hold up the reactor.
    // Only where there is no memory for the task they go here.
    template <typename Objects>
    void Drop(Objects objects)
    {
        if (!objects.empty()) {
            RunForeign("dropping objects", [&] { Post([last = std::make_shared<Objects>(std::move(objects))] {}); });
        }
    }
    // Runs the tasks that have been posted, on the calling thread.
    void RunTasks();

    // Says that this thread carries out requests of that process until Done. False when the process has its share of
    // the threads already: `later` runs when that has changed, perhaps before this returns.
    bool Begin(uint64_t process, const std::function<void()>& later);
    void Done();

    // Tells a worker, at each edge, when something arrives at the descriptor or, where it has output, when there is
    // room for that. `served` lives as long as the pool.
    bool Watch(int fd, bool hasOutput, Served& served);
    void Unwatch(int fd);
    // True while workers wait for all descriptors, so that this one may wait for a descriptor of its own.
    bool OthersWait() const { return waiting_.load(std::memory_order_relaxed) > 0; }

private:
    friend class ::VEXA::WorkerWait;
    friend struct Worker;

    void Run();
    // True when the process may have one more thread.
    bool HasShare(uint64_t process) VEXA_REQUIRES(mutex_);
    // Posts the first parked task whose process may have a thread now. Events that have come meanwhile go before it.
    void LookAtParked();
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
    std::list<std::function<void()>> tasks_ VEXA_GUARDED_BY(mutex_);
    Worker* workers_ VEXA_GUARDED_BY(mutex_) = nullptr;  // the first one of a list
    std::list<std::pair<uint64_t, std::list<std::function<void()>>>> parked_ VEXA_GUARDED_BY(mutex_);
    std::atomic<bool> hasParked_{false};
};

}  // namespace VEXA::ipc
