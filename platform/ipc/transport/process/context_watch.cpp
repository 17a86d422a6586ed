// SPDX-License-Identifier: Apache-2.0
#include "context_watch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "ipc_log.h"
#include "runtime_paths.h"
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
        // What has no name is about the directory itself, or says that events were lost.
        hasCause = hasCause || name.empty() || ContextSocketPath().ends_with("/" + name);
        haveEnded_ = haveEnded_ || (event.mask & IN_IGNORED) != 0;
        at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
    if (hasCause) {
        watch_.workers_.Post([watch = &watch_] { watch->Look(); });
    }
}

bool ContextWatch::FileId::IsSame(const FileId& other) const
{
    return IsSameFile(other) && changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

std::optional<ContextWatch::FileId> ContextWatch::IdOf(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileId{status.st_dev, status.st_ino, status.st_ctim};
}

void ContextWatch::Start(std::function<void()> action)
{
    MutexLock lock(mutex_);
    action_ = std::move(action);
    WatchDirectory();
    socket_ = IdOf(ContextSocketPath());
    SetLooking(events_ == nullptr || !socket_ || !context_.HasPublisher());
}

void ContextWatch::Look()
{
    std::function<void()> action;
    {
        MutexLock lock(mutex_);
        if (!action_) {
            return;
        }
        WatchDirectory();
        const std::optional<FileId> found = IdOf(ContextSocketPath());
        if (found && (!socket_ || !found->IsSame(*socket_))) {
            socket_ = found;
            action = action_;
        }
        SetLooking(events_ == nullptr || !found || !context_.HasPublisher());
    }
    if (!action) {
        return;
    }
    try {
        action();
    } catch (const std::exception& error) {
        IPC_LOGE("the action for a new context object threw: %{public}s", error.what());
    } catch (...) {
        IPC_LOGE("the action for a new context object threw");
    }
}

void ContextWatch::OnTick()
{
    {
        MutexLock lock(mutex_);
        if (!looking_) {
            return;
        }
    }
    Look();
}

void ContextWatch::WatchDirectory()
{
    const std::optional<FileId> now = IdOf(RuntimeDirectory());
    if (events_ != nullptr && !events_->HaveEnded() && now && now->IsSameFile(*directory_)) {
        return;
    }
    if (events_ != nullptr) {
        reactor_.Remove(events_->Fd());
        events_ = nullptr;
    }
    if (!now) {
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
    if (reactor_.Add(events, EPOLLIN)) {
        events_ = events;
        directory_ = now;
    }
}

void ContextWatch::SetLooking(bool isLooking)
{
    if (!isLooking) {
        looking_.reset();
    } else if (!looking_) {
        looking_ = reactor_.NeedTicks();
    }
}

}  // namespace VEXA::ipc
