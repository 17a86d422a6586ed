// SPDX-License-Identifier: Apache-2.0
#include "context_publisher.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ipc_log.h"

namespace VEXA::ipc {
namespace {

std::string LockPath()
{
    return RuntimeDirectory() + "/samgr.lock";
}

}  // namespace

PublishResult ContextPublisher::Publish(std::function<void()> onReplaced)
{
    MutexLock lock(mutex_);
    const PublishResult result = onReplaced_ ? PublishResult::TAKEN : Provide();
    if (result == PublishResult::DONE) {
        onReplaced_ = std::move(onReplaced);
    }
    return result;
}

bool ContextPublisher::Renew()
{
    MutexLock lock(mutex_);
    const PublishResult result = onReplaced_ ? Provide() : PublishResult::DONE;
    if (result == PublishResult::TAKEN) {
        const std::function<void()> onReplaced = std::exchange(onReplaced_, nullptr);
        lock.Unlock();
        onReplaced();
    }
    return result != PublishResult::FAILED;
}

void ContextPublisher::Withdraw()
{
    MutexLock lock(mutex_);
    if (!onReplaced_) {
        return;
    }
    socket_.Remove();
    if (IdOf(LockPath()).IsSameFile(IdOf("", lock_.Get()))) {
        unlink(LockPath().c_str());
    }
    // They stay while they have the sockets of other processes, which the next publisher takes for traces of this one.
    rmdir(EndpointDirectory().c_str());
    rmdir(RuntimeDirectory().c_str());
}

PublishResult ContextPublisher::Provide()
{
    if (!CreateRuntimeDirectory()) {
        return PublishResult::FAILED;
    }
    // A publisher that leaves removes its lock: then the file that was opened is not the lock any more.
    while (!lock_ || !IdOf(LockPath()).IsSameFile(IdOf("", lock_.Get()))) {
        lock_ = UniqueFd::Make([] { return open(LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); });
        const bool isOpen = static_cast<bool>(lock_);
        if (!isOpen || flock(lock_.Get(), LOCK_EX | LOCK_NB) != 0) {
            const bool isTaken = isOpen && errno == EWOULDBLOCK;
            IPC_LOGE("%{public}s %{public}s: %{public}s", isOpen ? "flock" : "open", LockPath().c_str(),
                isTaken ? "another process has it" : std::strerror(errno));
            lock_.Reset();
            return isTaken ? PublishResult::TAKEN : PublishResult::FAILED;
        }
    }
    return socket_.Provide() ? PublishResult::DONE : PublishResult::FAILED;
}

}  // namespace VEXA::ipc
