// SPDX-License-Identifier: Apache-2.0
// The one thread of a process that watches its links, accepts connections and never waits for anything else.
#pragma once

#include <pthread.h>
#include <sys/epoll.h>

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

// Sets a flag for its scope.
struct Raised {
    explicit Raised(bool& itsFlag) : flag(itsFlag) { flag = true; }
    ~Raised() { flag = false; }
    bool& flag;
};

// Owns a descriptor that the reactor watches. The reactor calls it, on its own thread only.
class EventHandler : public RefBase {
public:
    explicit EventHandler(UniqueFd fd) : fd_(std::move(fd)) {}

    // Where memory is short it may throw: it is called again a moment later.
    virtual void OnEvents(uint32_t events) = 0;
    // Is called about once in a kTickPeriod while anything needs ticks.
    virtual void OnTick(Deadline now) { (void)now; }
    // Three steps of Reactor::Settle, which deals with what has arrived so far: accept all connections; note how much
    // there is to read; read up to that, and return true when anything was dealt with.
    virtual void AcceptAll() {}
    virtual void TakeStock() {}
    virtual bool Drain() { return false; }
    // Goes on with a frame that waited for the end of a Settle, or for memory.
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
    // Starts the thread, which turns until the process leaves.
    bool Start();
    // Deals with up to `most` events and, with `mayWait`, waits for them, no longer than until the next tick. The
    // calling thread becomes the reactor's thread. False when something is left that the next turn tries again, because
    // memory or the kernel's resources have run out.
    static constexpr int kBatch = 64;
    bool Turn(bool mayWait = true, int most = kBatch);
    // Looks at all time limits, on the same thread. Turn does so once in a kTickPeriod.
    void Tick(Deadline now);
    // Ends every connection, as the kernel does when a process ends. Tests use it.
    void CutAll();

    static constexpr uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP;
    bool Add(const sptr<EventHandler>& handler, uint32_t events = kReadEvents);
    void Change(int fd, uint32_t events);
    // Ends the watch: on the reactor's own thread at once, else after a call that is under way. The handler outlives
    // it.
    void Remove(int fd);

    // Returns once everything has been dealt with that had reached this process's links when it was called, those not
    // accepted yet included; false when that took longer than the limit. On the reactor's own thread it does the work
    // itself, except for a link that is being read already. A frame that needs another one, which may be on that link,
    // waits: its own link resumes when the settling is over.
    bool Settle(std::chrono::milliseconds limit);
    // For handlers, while they are called: true while a Settle is under way; asks for Resume at the end of the turn.
    bool Settling() const { return settling_; }
    void ResumeLater() { resumeLater_ = true; }

    // Sets what is called at each tick, on the reactor's thread. Before Start only.
    void SetTickAction(std::function<void(Deadline)> action) { tickAction_ = std::move(action); }

private:
    bool IsOwnThread() const { return pthread_equal(pthread_self(), thread_.load(std::memory_order_relaxed)) != 0; }
    void DrainAll();
    void SettleWaiters();
    void Dispatch(int fd, uint32_t events);
    std::vector<sptr<EventHandler>> Handlers();

    const ThreadStarter startThread_;
    UniqueFd epoll_;
    UniqueFd wake_;
    std::atomic<pthread_t> thread_{};
    std::function<void(Deadline)> tickAction_ = [](Deadline) {};
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
