// SPDX-License-Identifier: Apache-2.0
#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "foreign_code.h"
#include "process_life.h"

namespace VEXA {
namespace ipc {
namespace {

// The thread has been woken, and is yet to see for whom.
constexpr uint64_t kUndecided = UINT64_MAX;

}  // namespace

// A thread of the pool.
struct Worker {
    explicit Worker(WorkerPool& itsPool) : pool(itsPool)
    {
        MutexLock lock(pool.mutex_);
        next = std::exchange(pool.workers_, this);
    }
    ~Worker()
    {
        MutexLock lock(pool.mutex_);
        Worker** at = &pool.workers_;
        while (*at != this) {
            at = &(*at)->next;
        }
        *at = next;
    }
    WorkerPool& pool;
    Worker* next;
    std::atomic<uint64_t> process{0};  // whose request it carries out; 0: nobody's
};

}  // namespace ipc

namespace {

thread_local ipc::Worker* t_worker = nullptr;

}  // namespace

// A wait within a wait is not counted again.
WorkerWait::WorkerWait() : worker_(std::exchange(t_worker, nullptr))
{
    if (worker_ != nullptr) {
        process_ = worker_->process.exchange(0);
        worker_->pool.blocked_.fetch_add(1);
        worker_->pool.KeepOneWaiting();
        worker_->pool.LookAtParked();
    }
}

WorkerWait::~WorkerWait()
{
    if (worker_ != nullptr) {
        worker_->pool.blocked_.fetch_sub(1);
        worker_->process.store(process_);
        t_worker = worker_;
    }
}

namespace ipc {

bool WorkerPool::Open()
{
    epoll_ = UniqueFd::Make([] { return epoll_create1(EPOLL_CLOEXEC); });
    taskEvent_ = UniqueFd::Make([] { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); });
    epoll_event event{EPOLLIN | EPOLLET, {.ptr = nullptr}};
    return epoll_ && taskEvent_ && epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, taskEvent_.Get(), &event) == 0;
}

void WorkerPool::Post(std::function<void()> task)
{
    MutexLock lock(mutex_);
    try {
        tasks_.push_back(std::move(task));
    } catch (const std::bad_alloc&) {
        lock.Unlock();
        task();
        return;
    }
    lock.Unlock();
    eventfd_write(taskEvent_.Get(), 1);
    KeepOneWaiting();
}

bool WorkerPool::Watch(int fd, bool hasOutput, Served& served)
{
    epoll_event event{EPOLLIN | EPOLLRDHUP | EPOLLET | (hasOutput ? EPOLLOUT : 0U), {.ptr = &served}};
    return epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) == 0 ||
           (errno == EEXIST && epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, fd, &event) == 0);
}

void WorkerPool::Unwatch(int fd)
{
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

void WorkerPool::KeepOneWaiting()
{
    size_t threads = threads_.load();
    do {
        // Blocked workers may all go on at once, so the threads beyond them are what counts.
        if (waiting_.load() > 0 || threads >= limit_.load(std::memory_order_relaxed) + blocked_.load() ||
            threads >= kMostThreads) {
            return;
        }
    } while (!threads_.compare_exchange_weak(threads, threads + 1));
    // The new worker counts as waiting at once, so that no second one is started for the same want.
    waiting_.fetch_add(1);
    bool isStarted = startThread_("vexa-worker", [this] { Run(); });
    // Without the first one nobody would hear of what arrives.
    for (auto left = kStallLimit / kShortagePause; !isStarted && threads == 0 && left > 0; --left) {
        std::this_thread::sleep_for(kShortagePause);
        isStarted = startThread_("vexa-worker", [this] { Run(); });
    }
    if (!isStarted) {
        waiting_.fetch_sub(1);
        threads_.fetch_sub(1);
    }
}

void WorkerPool::Run()
{
    Worker self(*this);
    t_worker = &self;
    for (;;) {
        epoll_event event{};
        const int count = epoll_wait(epoll_.Get(), &event, 1, -1);
        if (ProcessLife::Exiting()) {
            break;
        }
        if (count != 1) {
            if (errno != EINTR) {
                std::this_thread::sleep_for(kShortagePause);
            }
            continue;
        }
        self.process.store(kUndecided, std::memory_order_relaxed);
        if (waiting_.fetch_sub(1) == 1) {
            KeepOneWaiting();
        }
        if (event.data.ptr == nullptr) {
            RunForeign("a task", [this] { RunTasks(); });
        } else {
            static_cast<Served*>(event.data.ptr)->Serve();
        }
        Done();
        // Threads that stood in for blocked ones end when those go on.
        size_t threads = threads_.load();
        while (threads > limit_.load(std::memory_order_relaxed) + blocked_.load()) {
            if (threads_.compare_exchange_weak(threads, threads - 1)) {
                KeepOneWaiting();
                return;
            }
        }
        waiting_.fetch_add(1);
    }
}

bool WorkerPool::Begin(uint64_t process, const std::function<void()>& later)
{
    Worker* const self = t_worker;
    if (self == nullptr) {
        return true;
    }
    self->process.store(process, std::memory_order_relaxed);
    bool isParked = false;
    if (!OthersWait()) {
        MutexLock lock(mutex_);
        isParked = !HasShare(process);
        try {
            if (isParked) {
                parked_.push_back({process, {later}});
                self->process.store(0);
                hasParked_.store(true);
            }
        } catch (const std::bad_alloc&) {
            isParked = false;  // better one thread too many than a request that is never carried out
        }
    }
    LookAtParked();
    return !isParked;
}

void WorkerPool::Done()
{
    if (t_worker != nullptr) {
        t_worker->process.store(0);
        LookAtParked();
    }
}

bool WorkerPool::HasShare(uint64_t process)
{
    size_t own = 1;
    bool hasOthers = false;
    for (const Worker* worker = workers_; worker != nullptr; worker = worker->next) {
        const uint64_t its = worker != t_worker ? worker->process.load() : 0;
        own += its == process || its == kUndecided ? 1 : 0;
        hasOthers = hasOthers || (its != 0 && its != process && its != kUndecided);
    }
    const size_t limit = limit_.load(std::memory_order_relaxed);
    return own <= std::max<size_t>(1, hasOthers ? limit / 2 : limit - 1);
}

void WorkerPool::LookAtParked()
{
    if (!hasParked_.load()) {
        return;
    }
    MutexLock lock(mutex_);
    const auto next = std::ranges::find_if(parked_, [this](const auto& parked) VEXA_NO_THREAD_SAFETY_ANALYSIS {
        return waiting_.load() > 1 || HasShare(parked.first);
    });
    if (next != parked_.end()) {
        tasks_.splice(tasks_.end(), next->second);
        parked_.erase(next);
        hasParked_.store(!parked_.empty());
        eventfd_write(taskEvent_.Get(), 1);
    }
}

void WorkerPool::RunTasks()
{
    for (;;) {
        MutexLock lock(mutex_);
        if (tasks_.empty()) {
            return;
        }
        const std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        const bool hasMore = !tasks_.empty();
        lock.Unlock();
        // The task may take long, so another worker sees to the rest.
        if (hasMore) {
            eventfd_write(taskEvent_.Get(), 1);
        }
        task();
    }
}

}  // namespace ipc
}  // namespace VEXA
