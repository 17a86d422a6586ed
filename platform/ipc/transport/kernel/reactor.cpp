// SPDX-License-Identifier: Apache-2.0
#include "reactor.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "transport/limits.h"

namespace VEXA::ipc {

Reactor::Ticks Reactor::NeedTicks()
{
    if (ticksNeeded_.fetch_add(1) == 0 && !IsOwnThread()) {
        eventfd_write(wake_.Get(), 1);
    }
    return Ticks(this);
}

bool Reactor::Open()
{
    epoll_ = UniqueFd::Make([] { return epoll_create1(EPOLL_CLOEXEC); });
    wake_ = UniqueFd::Make([] { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); });
    epoll_event event{EPOLLIN, {.fd = wake_.Get()}};
    return epoll_ && wake_ && epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, wake_.Get(), &event) == 0;
}

bool Reactor::Start()
{
    nextTick_ = std::chrono::steady_clock::now() + kTickPeriod;
    return startThread_("vexa-reactor", [this] {
        while (!ProcessLife::Exiting()) {
            if (!Turn()) {
                std::this_thread::sleep_for(kShortagePause);
            }
        }
    });
}

bool Reactor::Add(const sptr<EventHandler>& handler, uint32_t events)
{
    const int fd = handler->Fd();
    MutexLock lock(mutex_);
    handlers_[fd] = handler;
    epoll_event event{events, {.fd = fd}};
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        handlers_.erase(fd);  // not the last reference
        return false;
    }
    return true;
}

void Reactor::Change(int fd, uint32_t events)
{
    epoll_event event{events, {.fd = fd}};
    epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, fd, &event);
}

void Reactor::Remove(int fd)
{
    decltype(handlers_)::node_type removed;  // may be the last reference to the handler: it goes after the lock
    MutexLock lock(mutex_);
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
    removed = handlers_.extract(fd);
}

bool Reactor::Settle(std::chrono::milliseconds limit)
{
    if (IsOwnThread()) {
        if (!settling_) {
            DrainAll();
        }
        return true;
    }
    MutexLock lock(mutex_);
    const uint64_t mine = ++settleAsked_;
    eventfd_write(wake_.Get(), 1);
    return settled_.WaitFor(mutex_, limit, [&]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return settleDone_ >= mine; });
}

std::vector<sptr<EventHandler>> Reactor::Handlers()
{
    std::vector<sptr<EventHandler>> handlers;
    MutexLock lock(mutex_);
    handlers.reserve(handlers_.size());
    for (const auto& [fd, handler] : handlers_) {
        handlers.push_back(handler);
    }
    return handlers;
}

void Reactor::DrainAll()
{
    const Raised settling(settling_);
    for (const sptr<EventHandler>& handler : Handlers()) {
        handler->AcceptAll();
    }
    const std::vector<sptr<EventHandler>> handlers = Handlers();
    for (const sptr<EventHandler>& handler : handlers) {
        handler->TakeStock();
    }
    // Links are read in rounds, because a frame on one link can be the grant that a frame on another link waits for.
    // The rounds end: each reads only bytes that had arrived when it began.
    bool hasMoved = true;
    while (std::exchange(hasMoved, false)) {
        for (const sptr<EventHandler>& handler : handlers) {
            hasMoved = handler->Drain() || hasMoved;
        }
    }
}

bool Reactor::Turn(bool mayWait, int most)
{
    thread_.store(pthread_self(), std::memory_order_relaxed);
    epoll_event events[kBatch];
    const int tick = ticksNeeded_.load() > 0 ? static_cast<int>(kTickPeriod.count()) : -1;
    const int count = epoll_wait(epoll_.Get(), events, std::min(most, kBatch), resumeLater_ || !mayWait ? 0 : tick);
    bool isDone = count >= 0 || errno == EINTR;
    const auto attempt = [&isDone](const auto& step) {
        try {
            step();
        } catch (const std::bad_alloc&) {
            isDone = false;
        }
    };
    for (int i = 0; i < count; ++i) {
        attempt([&] { Dispatch(events[i].data.fd, events[i].events); });
    }
    attempt([&] { SettleWaiters(); });
    attempt([&] {
        if (resumeLater_) {
            const std::vector<sptr<EventHandler>> handlers = Handlers();
            resumeLater_ = false;
            for (const sptr<EventHandler>& handler : handlers) {
                attempt([&] { handler->Resume(); });
            }
        }
    });
    attempt([&] {
        const Deadline now = std::chrono::steady_clock::now();
        if (ticksNeeded_.load() > 0 && now >= nextTick_) {
            Tick(now);
        }
    });
    resumeLater_ = resumeLater_ || !isDone;  // so that the next turn does not wait for an event
    return isDone;
}

void Reactor::CutAll()
{
    for (const sptr<EventHandler>& handler : Handlers()) {
        shutdown(handler->Fd(), SHUT_RDWR);
    }
}

void Reactor::Dispatch(int fd, uint32_t events)
{
    if (fd == wake_.Get()) {
        eventfd_t ignored;
        eventfd_read(fd, &ignored);
        return;
    }
    MutexLock lock(mutex_);
    const auto found = handlers_.find(fd);
    const sptr<EventHandler> handler = found != handlers_.end() ? found->second : nullptr;
    lock.Unlock();
    if (handler != nullptr) {
        handler->OnEvents(events);
    }
}

void Reactor::SettleWaiters()
{
    MutexLock lock(mutex_);
    const uint64_t asked = settleAsked_;
    if (asked == settleDone_) {
        return;
    }
    lock.Unlock();
    DrainAll();
    lock.Lock();
    settleDone_ = asked;
    settled_.NotifyAll();
}

void Reactor::Tick(Deadline now)
{
    nextTick_ = now + kTickPeriod;
    for (const sptr<EventHandler>& handler : Handlers()) {
        handler->OnTick(now);
    }
    tickAction_(now);
}

}  // namespace VEXA::ipc
