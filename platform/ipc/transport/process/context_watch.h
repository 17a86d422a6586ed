// SPDX-License-Identifier: Apache-2.0
// Tells when a context object has been published anew.
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "context_link.h"
#include "reactor.h"
#include "runtime_paths.h"
#include "vexa/base/mutex.h"
#include "vexa/base/refbase.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// The kernel tells of a new socket at once. Where it can't, because the runtime directory has been removed or no watch
// can be had, the reactor's ticks look until it can. They also do while the context object is dead, because another
// directory may get the next one: a link or a folder above may have changed. All operations may be called from any
// thread.
class ContextWatch {
public:
    ContextWatch(Reactor& reactor, WorkerPool& workers, const ContextLink& context)
        : reactor_(reactor), workers_(workers), context_(context)
    {}

    // Runs `action`, on a worker, whenever another socket than before is the context's from now on.
    void Start(std::function<void()> action);
    // For workers, at each tick too: looks now, and runs the action if another socket than before is there.
    void Look();

private:
    // Receives what the kernel tells of the runtime directory.
    class Events : public EventHandler {
    public:
        Events(UniqueFd fd, ContextWatch& watch) : EventHandler(std::move(fd)), watch_(watch) {}
        void OnEvents(uint32_t events) override;
        // True when the kernel will tell no more.
        bool HaveEnded() const { return haveEnded_; }

    private:
        ContextWatch& watch_;
        std::atomic<bool> haveEnded_{false};
    };
    // Has the kernel watch the directory that has the runtime directory's name now.
    void WatchDirectory() VEXA_REQUIRES(mutex_);
    // Asks for ticks while the kernel can't be relied on, or the context object is dead.
    void SetLooking() VEXA_REQUIRES(mutex_);

    Reactor& reactor_;
    WorkerPool& workers_;
    const ContextLink& context_;
    Mutex mutex_{LockRank::ContextWatch};
    std::function<void()> action_ VEXA_GUARDED_BY(mutex_);
    sptr<Events> events_ VEXA_GUARDED_BY(mutex_);  // of `directory_`; null when there are none
    FileId directory_ VEXA_GUARDED_BY(mutex_);
    FileId socket_ VEXA_GUARDED_BY(mutex_);  // the last that was seen
    Reactor::Ticks looking_ VEXA_GUARDED_BY(mutex_);
    bool hasWarned_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::ipc
