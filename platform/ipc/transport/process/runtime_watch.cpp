// SPDX-License-Identifier: Apache-2.0
#include "runtime_watch.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "foreign_code.h"
#include "ipc_log.h"
#include "process_life.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {
namespace {

constexpr uint32_t kDirectoryEvents = IN_CREATE | IN_MOVE | IN_DELETE | IN_MOVE_SELF | IN_DELETE_SELF;
// The kernel keeps the file of a listening socket, and reports its removal as a change of the number of links.
constexpr uint32_t kSocketEvents = IN_ATTRIB | IN_MOVE_SELF;

}  // namespace

void RuntimeWatch::Events::OnEvents(uint32_t)
{
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(Fd(), events, sizeof(events));
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= size;) {
        inotify_event event;
        std::memcpy(&event, events + at, sizeof(event));
        haveEnded_ = haveEnded_ || (event.mask & IN_IGNORED) != 0;
        at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
    watch_.workers_.Post([watch = &watch_] { watch->Look(); });
}

void RuntimeWatch::Reserve()
{
    MutexLock lock(mutex_);
    place_ = UniqueFd::Make([] { return eventfd(0, EFD_CLOEXEC); });
}

void RuntimeWatch::Start()
{
    MutexLock lock(mutex_);
    looking_ = reactor_.NeedTicks();
}

void RuntimeWatch::OnNewContext(std::function<void()> action)
{
    MutexLock lock(mutex_);
    action_ = std::move(action);
    WatchFiles();
    socket_ = IdOf(ContextSocketPath());
    SetLooking(true);
}

void RuntimeWatch::Look()
{
    if (ProcessLife::Exiting()) {
        return;
    }
    bool isWhole = renew_();
    MutexLock lock(mutex_);
    if (WatchFiles()) {
        // Something may have been removed before the kernel watched.
        lock.Unlock();
        isWhole = renew_();
        lock.Lock();
    }
    const FileId found = IdOf(ContextSocketPath());
    const bool lives = context_.HasPublisher();
    const bool isNew = action_ && found.Exists() && (found != socket_ || (hasReachedFormer_ && !lives));
    SetLooking(isWhole);
    const std::function<void()> action = action_;
    if (isNew) {
        socket_ = found;
        hasReachedFormer_ = lives;
    }
    lock.Unlock();
    if (isNew && !RunForeign("the action for a new context object", action)) {
        // The action has failed. Without a known socket, the next tick takes the present one for new and runs it again.
        lock.Lock();
        socket_ = FileId();
        looking_ = reactor_.NeedTicks();
    }
}

bool RuntimeWatch::WatchFiles()
{
    const FileId directory = IdOf(RuntimeDirectory());
    const FileId own = IdOf(endpoint_);
    if (events_ != nullptr) {
        if (!events_->HaveEnded() && directory.IsSameFile(directory_) && own.IsSameFile(own_)) {
            return false;
        }
        reactor_.Remove(events_->Fd());
        events_ = nullptr;
    }
    if (!directory.Exists() || !own.Exists()) {
        return false;
    }
    UniqueFd fd = UniqueFd::Make([] { return inotify_init1(IN_CLOEXEC | IN_NONBLOCK); });
    if (fd && place_ && dup3(fd.Get(), place_.Get(), O_CLOEXEC) >= 0) {
        fd = std::exchange(place_, UniqueFd());
    }
    if (!fd || inotify_add_watch(fd.Get(), RuntimeDirectory().c_str(), kDirectoryEvents) < 0 ||
        inotify_add_watch(fd.Get(), endpoint_.c_str(), kSocketEvents) < 0) {
        if (!std::exchange(hasWarned_, true)) {
            IPC_LOGW("can't watch %{public}s, looks there every second instead: %{public}s", RuntimeDirectory().c_str(),
                std::strerror(errno));
        }
        return false;
    }
    const sptr<Events> events(new Events(std::move(fd), *this));
    if (!reactor_.Add(events)) {
        return false;
    }
    events_ = events;
    directory_ = directory;
    own_ = own;
    return true;
}

void RuntimeWatch::SetLooking(bool isWhole)
{
    const bool hasContext = !action_ || (IdOf(ContextSocketPath()).Exists() && context_.HasPublisher());
    if (events_ != nullptr && isWhole && hasContext) {
        looking_.reset();
    } else if (!looking_) {
        looking_ = reactor_.NeedTicks();
    }
}

}  // namespace VEXA::ipc
