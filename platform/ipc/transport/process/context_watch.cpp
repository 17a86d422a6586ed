// SPDX-License-Identifier: Apache-2.0
#include "context_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "foreign_code.h"
#include "ipc_log.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {
namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVE_SELF | IN_DELETE_SELF;

}  // namespace

void ContextWatch::Events::OnEvents(uint32_t)
{
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(Fd(), events, sizeof(events));
    bool hasCause = false;
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= size;) {
        inotify_event event;
        std::memcpy(&event, events + at, sizeof(event));
        const std::string name = event.len > 0 ? events + at + sizeof(event) : "";
        // An event without a name is about the directory itself, or says that events were lost.
        hasCause = hasCause || name.empty() || ContextSocketPath().ends_with("/" + name);
        haveEnded_ = haveEnded_ || (event.mask & IN_IGNORED) != 0;
        at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
    if (hasCause) {
        watch_.workers_.Post([watch = &watch_] { watch->Look(); });
    }
}

void ContextWatch::Start(std::function<void()> action)
{
    MutexLock lock(mutex_);
    action_ = std::move(action);
    WatchDirectory();
    socket_ = IdOf(ContextSocketPath());
    SetLooking();
}

void ContextWatch::Look()
{
    MutexLock lock(mutex_);
    if (!action_) {
        return;
    }
    WatchDirectory();
    const FileId found = IdOf(ContextSocketPath());
    const bool isNew = found.Exists() && found != socket_;
    if (isNew) {
        socket_ = found;
    }
    SetLooking();
    const std::function<void()> action = action_;
    lock.Unlock();
    if (isNew) {
        RunForeign("the action for a new context object", action);
    }
}

void ContextWatch::WatchDirectory()
{
    const FileId now = IdOf(RuntimeDirectory());
    if (events_ != nullptr) {
        if (!events_->HaveEnded() && now.IsSameFile(directory_)) {
            return;
        }
        reactor_.Remove(events_->Fd());
        events_ = nullptr;
    }
    if (!now.Exists()) {
        return;
    }
    UniqueFd fd = UniqueFd::Make([] { return inotify_init1(IN_CLOEXEC | IN_NONBLOCK); });
    if (!fd || inotify_add_watch(fd.Get(), RuntimeDirectory().c_str(), kEvents) < 0) {
        if (!hasWarned_) {
            IPC_LOGW("can't watch %{public}s, looks there every second instead: %{public}s", RuntimeDirectory().c_str(),
                std::strerror(errno));
            hasWarned_ = true;
        }
        return;
    }
    const sptr<Events> events(new Events(std::move(fd), *this));
    if (reactor_.Add(events)) {
        events_ = events;
        directory_ = now;
    }
}

void ContextWatch::SetLooking()
{
    if (events_ != nullptr && IdOf(ContextSocketPath()).Exists() && context_.HasPublisher()) {
        looking_.reset();
    } else if (!looking_) {
        looking_ = reactor_.NeedTicks();
    }
}

}  // namespace VEXA::ipc
