// SPDX-License-Identifier: Apache-2.0
// Keeps this process's sockets in the runtime directory, and tells when a context object has been published anew.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "context_link.h"
#include "reactor.h"
#include "runtime_paths.h"
#include "vexa/base/mutex.h"
#include "vexa/base/refbase.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// The kernel tells of a socket that has been made or removed at once. Where it can't, because something is missing or
// no watch can be had, the reactor's ticks look until it can. For a process with an action they also do while the
// context object is dead, because another directory may get the next one: a link or a folder above may have changed.
// All operations may be called from any thread.
class RuntimeWatch {
public:
    // `renew` puts back what this process has in the runtime directory, `endpoint` among it; false while it can't.
    RuntimeWatch(Reactor& reactor, WorkerPool& workers, const ContextLink& context, std::string endpoint,
        std::function<bool()> renew)
        : reactor_(reactor),
          workers_(workers),
          context_(context),
          endpoint_(std::move(endpoint)),
          renew_(std::move(renew))
    {}

    // Takes the number for the first watch, before the transport opens a socket. The kernel needs milliseconds to end a
    // watch, and ends what a killed process has open from the highest number down: sockets with lower numbers than the
    // watch would tell of the process's death that much later.
    void Reserve();
    // Watches from the next tick on: a process that has ended by then never pays for the watch, whose end takes the
    // kernel milliseconds.
    void Start();
    // Runs `action`, on a worker, whenever another socket than before is the context's from now on.
    void OnNewContext(std::function<void()> action);
    // For workers, at each tick too: looks now, and runs the action if another socket than before is there.
    void Look();

private:
    // Receives what the kernel tells of the watched files.
    class Events : public EventHandler {
    public:
        Events(UniqueFd fd, RuntimeWatch& watch) : EventHandler(std::move(fd)), watch_(watch) {}
        void OnEvents(uint32_t events) override;
        // True when the kernel will tell no more of one of the files.
        bool HaveEnded() const { return haveEnded_; }

    private:
        RuntimeWatch& watch_;
        std::atomic<bool> haveEnded_{false};
    };
    // Has the kernel watch the directory that has the runtime directory's name now, and the endpoint; true when it did
    // not watch these before.
    bool WatchFiles() VEXA_REQUIRES(mutex_);
    // Asks for ticks while the kernel can't be relied on.
    void SetLooking(bool isWhole) VEXA_REQUIRES(mutex_);

    Reactor& reactor_;
    WorkerPool& workers_;
    const ContextLink& context_;
    const std::string endpoint_;
    const std::function<bool()> renew_;
    Mutex mutex_{LockRank::RuntimeWatch};
    std::function<void()> action_ VEXA_GUARDED_BY(mutex_);
    sptr<Events> events_ VEXA_GUARDED_BY(mutex_);  // of the next two files; null when there are none
    FileId directory_ VEXA_GUARDED_BY(mutex_);
    FileId own_ VEXA_GUARDED_BY(mutex_);
    UniqueFd place_ VEXA_GUARDED_BY(mutex_);  // has the number for a watch until there is one
    FileId socket_ VEXA_GUARDED_BY(mutex_);   // the context's that was seen last
    // The action has run while the former publisher lived, which it may have reached: it runs again after that one's
    // end.
    bool hasReachedFormer_ VEXA_GUARDED_BY(mutex_) = false;
    Reactor::Ticks looking_ VEXA_GUARDED_BY(mutex_);
    bool hasWarned_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::ipc
