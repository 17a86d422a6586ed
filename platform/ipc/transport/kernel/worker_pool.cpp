// SPDX-License-Identifier: Apache-2.0
#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <utility>

#include "foreign_code.h"
#include "process_life.h"

namespace VEXA {
namespace {

thread_local ipc::WorkerPool* currentPool = nullptr;

}  // namespace

// A wait within a wait is not counted again.
WorkerWait::WorkerWait() : pool_(std::exchange(currentPool, nullptr))
{
    if (pool_ != nullptr) {
        pool_->blocked_.fetch_add(1);
        pool_->KeepOneWaiting();
    }
}

WorkerWait::~WorkerWait()
{
    if (pool_ != nullptr) {
        pool_->blocked_.fetch_sub(1);
        currentPool = pool_;
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
    if (!startThread_("vexa-worker", [this] { Run(); })) {
        waiting_.fetch_sub(1);
        threads_.fetch_sub(1);
    }
}

void WorkerPool::Run()
{
    currentPool = this;
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
        if (waiting_.fetch_sub(1) == 1) {
            KeepOneWaiting();
        }
        if (event.data.ptr == nullptr) {
            RunForeign("a task", [this] { RunTasks(); });
        } else {
            static_cast<Served*>(event.data.ptr)->Serve();
        }
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
