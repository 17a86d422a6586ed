// SPDX-License-Identifier: Apache-2.0
// The context object: reaching it and publishing it.
#include "vexa/ipc/context_object.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "connection_listener.h"
#include "ipc_log.h"
#include "process.h"
#include "process_life.h"
#include "runtime_paths.h"

namespace VEXA {
namespace ipc {
namespace {

constexpr std::chrono::seconds kGreetingWait{1};

// Whoever publishes the context object is trusted with everything, so it has to be root, this user, or the owner of the
// runtime directory.
bool IsTrusted(uid_t user)
{
    struct stat directory {};
    return user == 0 || user == geteuid() ||
           (stat(RuntimeDirectory().c_str(), &directory) == 0 && directory.st_uid == user);
}

}  // namespace

sptr<Peer> IpcProcess::ContextPeer()
{
    const Deadline deadline = std::chrono::steady_clock::now() + kGreetingWait;
    const uint64_t failures = contextFailures_.load();
    MutexLock lock(contextMutex_);
    if (context_ != nullptr && !context_->Dead()) {
        return context_;
    }
    // Whoever waited while another thread tried in vain shares its result.
    if (contextFailures_.load() != failures) {
        return nullptr;
    }
    context_ = GreetContext(deadline);
    if (context_ == nullptr) {
        ++contextFailures_;
    }
    return context_;
}

sptr<Peer> IpcProcess::GreetContext(Deadline deadline)
{
    // The endpoint comes before the link, so that it also goes before it when the process is killed.
    if (RuntimeDirectory().empty() || access(ContextSocketPath().c_str(), F_OK) != 0 || !Start() || !RenewEndpoint()) {
        return nullptr;
    }
    UniqueFd fd = ConnectTo(ContextSocketPath());
    if (!fd) {
        return nullptr;
    }
    const Credentials credentials = CredentialsOf(fd);
    if (!IsTrusted(credentials.uid)) {
        IPC_LOGE("the context object is published by user %{public}u, who is not trusted", credentials.uid);
        return nullptr;
    }
    const sptr<Greeting> greeting(new Greeting);
    const sptr<Link> link(new Link(std::move(fd), greeting));
    if (!reactor_.Add(link, EPOLLIN | EPOLLRDHUP)) {
        return nullptr;
    }
    const sptr<Peer> peer = greeting->Wait(deadline);
    if (peer == nullptr) {
        link->Shutdown();
        return nullptr;
    }
    publisher_ = peer->Id();
    // It may have been buried before it was known for the publisher.
    if (EndpointId dead = peer->Id(); peer->Dead()) {
        publisher_.compare_exchange_strong(dead, 0);
    }
    return peer;
}

bool IpcProcess::PublishContext(const sptr<IRemoteObject>& object)
{
    if (object == nullptr || !CreateRuntimeDirectory()) {
        return false;
    }
    MutexLock lock(startMutex_);
    return PublishLocked(object);
}

bool IpcProcess::PublishLocked(const sptr<IRemoteObject>& object)
{
    const std::string lockPath = RuntimeDirectory() + "/samgr.lock";
    UniqueFd publisherLock = UniqueFd::Make([&] { return open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); });
    if (!publisherLock) {
        IPC_LOGE("can't open %{public}s: %{public}s", lockPath.c_str(), std::strerror(errno));
        return false;
    }
    if (publishing_ || flock(publisherLock.Get(), LOCK_EX | LOCK_NB) != 0) {
        IPC_LOGE("another process publishes the context object in %{public}s", RuntimeDirectory().c_str());
        return false;
    }
    RemoveStaleEndpoints();
    if (!started_.load(std::memory_order_relaxed)) {
        if (!StartLocked()) {
            return false;
        }
        started_.store(true, std::memory_order_release);
    }
    objects_.SetContextObject(object);
    UniqueFd listener = ListenAt(ContextSocketPath());
    if (!listener || Listen(std::move(listener)) == nullptr) {
        IPC_LOGE("can't listen at %{public}s: %{public}s", ContextSocketPath().c_str(), std::strerror(errno));
        return false;
    }
    publisherLock_ = std::move(publisherLock);
    publishing_ = true;
    return true;
}

void IpcProcess::WatchContext(std::function<void()> action)
{
    if (!Start()) {
        return;
    }
    contextWatch_.Start(std::move(action));
}

}  // namespace ipc

sptr<IRemoteObject> GetContextObject()
{
    if (ipc::ProcessLife::Get().Forked()) {
        return nullptr;
    }
    ipc::IpcProcess& process = ipc::IpcProcess::Get();
    if (sptr<IRemoteObject> own = process.Objects().Find(ipc::kContextObject, process.Id()); own != nullptr) {
        return own;
    }
    const sptr<ipc::Peer> peer = process.ContextPeer();
    return peer != nullptr ? peer->Proxy(ipc::kContextObject) : nullptr;
}

bool PublishContextObject(const sptr<IRemoteObject>& object)
{
    return !ipc::ProcessLife::Get().Forked() && ipc::IpcProcess::Get().PublishContext(object);
}

void OnContextObjectPublished(std::function<void()> action)
{
    if (!ipc::ProcessLife::Get().Forked()) {
        ipc::IpcProcess::Get().WatchContext(std::move(action));
    }
}

}  // namespace VEXA
