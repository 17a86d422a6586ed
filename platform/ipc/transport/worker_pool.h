// SPDX-License-Identifier: Apache-2.0
// The threads that carry out incoming requests.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>

#include "server_channel.h"
#include "socket.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {

// Workers wait on one epoll set; the one that wakes reads the request, runs it and writes the reply, without a
// hand-over. There is always one worker waiting as long as the limit allows, so a request never waits for a thread to
// be started. A worker that waits for a request of its own does not count against the limit: a chain of nested calls
// between two processes always finds a thread. Any thread.
class WorkerPool {
public:
    bool Start();
    void SetLimit(size_t threads) { limit_.store(threads == 0 ? 1 : threads, std::memory_order_relaxed); }

    // Runs `task` on a worker.
    void Post(std::function<void()> task);
    // Serves an accepted channel of that process from now on; what the reader holds already is served at once.
    void Adopt(UniqueFd fd, const sptr<Peer>& peer, const FrameReader& reader);

    void CloseStalled(Deadline now) { channels_.CloseStalled(now); }

    // For server channels:
    // Tells the workers from now on when something arrives or, if the channel has output, when there is room for it.
    bool Watch(ServerChannel& channel);
    void Unwatch(int fd);
    // Whether there are workers for the other channels while this one waits for its own.
    bool OthersWait() const { return waiting_.load(std::memory_order_relaxed) > 0; }

private:
    friend class ::VEXA::WorkerWait;

    // Workers that wait for requests of their own come on top of the limit, up to this many threads in all.
    static constexpr size_t kMostThreads = 256;

    void Run();
    void RunTasks();
    void WakeForTask();
    // Starts another worker unless one is waiting, or as many as may are running.
    void KeepOneWaiting();

    std::atomic<size_t> limit_{16};
    std::atomic<size_t> threads_{0};  // all workers
    std::atomic<size_t> waiting_{0};  // for events
    std::atomic<size_t> blocked_{0};  // in a WorkerWait

    UniqueFd epoll_;
    UniqueFd taskEvent_;
    ServerChannels channels_;

    Mutex mutex_;
    std::deque<std::function<void()>> tasks_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
