// SPDX-License-Identifier: Apache-2.0
// The one thread of a process that watches its links, accepts connections and never waits for anything else.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "socket.h"
#include "thread.h"
#include "vexa/base/mutex.h"
#include "vexa/base/refbase.h"

namespace VEXA::ipc {

// What the reactor watches. Called on its thread only.
class EventHandler : public RefBase {
public:
    explicit EventHandler(UniqueFd fd) : fd_(std::move(fd)) {}

    virtual void OnEvents(uint32_t events) = 0;
    // About once in a kTickPeriod while anything needs ticks.
    virtual void OnTick(Deadline now) { (void)now; }
    // What has arrived so far, for Reactor::Settle: takes in connections; notes how much there is to read; reads up to
    // that, and says whether anything was dealt with.
    virtual void AcceptAll() {}
    virtual void TakeStock() {}
    virtual bool Drain() { return false; }
    // Goes on with what waited for the end of a Settle.
    virtual void Resume() {}

    int Fd() const { return fd_.Get(); }

protected:
    UniqueFd fd_;
};

class Reactor {
public:
    explicit Reactor(ThreadStarter startThread) : startThread_(std::move(startThread)) {}

    // While one of these lives, the reactor ticks: its owner has something that may time out.
    struct StopTicks {
        void operator()(Reactor* reactor) const { reactor->ticksNeeded_.fetch_sub(1); }
    };
    using Ticks = std::unique_ptr<Reactor, StopTicks>;
    Ticks NeedTicks();

    // Makes the descriptors; false when the kernel refuses.
    bool Open();
    // Starts the thread that turns for ever.
    bool Start();
    // Deals with up to `most` events and, with `mayWait`, waits for them, no longer than until the next tick; false
    // when that is over for good. The calling thread is the reactor's thread.
    static constexpr int kBatch = 64;
    bool Turn(bool mayWait = true, int most = kBatch);
    // Ends every connection, as the kernel does when a process ends. For tests without processes.
    void CutAll();

    bool Add(const sptr<EventHandler>& handler, uint32_t events);
    void Change(int fd, uint32_t events);
    // The handler is called no more (from the reactor's own thread: at once; it lives until its call returns).
    void Remove(int fd);

    // Returns once everything that had reached this process's links when it was called, those included that were not
    // accepted yet, has been dealt with; false when that took longer than the limit. On the reactor's own thread it
    // does the work itself, for all links whose frames are not being read already. Frames that then turn out to need
    // another one, which may be on a link that is being read, wait: their links resume when the settling is over.
    bool Settle(std::chrono::milliseconds limit);
    // For handlers, while they are called: whether a Settle is under way, and that the handler has something waiting
    // for its end.
    bool Settling() const { return settling_; }
    void ResumeLater() { resumeLater_ = true; }

    // Called at each tick, on the reactor's thread. Set before Start.
    void SetTickAction(std::function<void(Deadline)> action) { tickAction_ = std::move(action); }

private:
    bool IsOwnThread() const { return pthread_equal(pthread_self(), thread_.load(std::memory_order_relaxed)) != 0; }
    void Wake();
    void DrainAll();
    void ResumeAll();
    void SettleWaiters();
    void Dispatch(int fd, uint32_t events);
    void Tick();
    std::vector<sptr<EventHandler>> Handlers();

    const ThreadStarter startThread_;
    UniqueFd epoll_;
    UniqueFd wake_;
    std::atomic<pthread_t> thread_{};
    std::function<void(Deadline)> tickAction_;
    std::atomic<uint32_t> ticksNeeded_{0};
    Deadline nextTick_{};
    // The reactor's thread only:
    bool settling_ = false;
    bool resumeLater_ = false;

    Mutex mutex_{LockRank::Reactor};
    CondVar settled_;
    std::unordered_map<int, sptr<EventHandler>> handlers_ VEXA_GUARDED_BY(mutex_);
    uint64_t settleAsked_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t settleDone_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
