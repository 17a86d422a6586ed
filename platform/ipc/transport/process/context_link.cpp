// SPDX-License-Identifier: Apache-2.0
#include "context_link.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc_log.h"
#include "runtime_paths.h"
#include "transport/limits.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {
namespace {

// The publisher of the context object is trusted with everything, so it has to be root, this user, or the owner of the
// runtime directory.
bool IsTrusted(uid_t user)
{
    struct stat directory {};
    return user == 0 || user == geteuid() ||
           (stat(RuntimeDirectory().c_str(), &directory) == 0 && directory.st_uid == user);
}

}  // namespace

void LogNoPublisher()
{
    t_noPublisher = errno;
    IPC_LOGE("%{public}s", NoPublisherText(t_noPublisher).c_str());
}

std::string NoPublisherText(int error)
{
    return "no manager can be reached at " + ContextSocketPath() + ": " + std::strerror(error);
}

sptr<Peer> ContextLink::Reach()
{
    const Deadline deadline = std::chrono::steady_clock::now() + kGreetingWait;
    const uint64_t failures = failures_.load();
    MutexLock lock(mutex_);
    if (peer_ != nullptr && peer_->IsConnected()) {
        return peer_;
    }
    // A thread that waited while another one tried in vain shares the result.
    if (failures_.load() != failures) {
        return nullptr;
    }
    peer_ = Greet(deadline);
    if (peer_ == nullptr) {
        ++failures_;
        LogNoPublisher();
    }
    return peer_;
}

sptr<Peer> ContextLink::Greet(Deadline deadline)
{
    // The endpoint comes before the link, so that it also goes before it when the process is killed.
    const bool mayConnect = access(ContextSocketPath().c_str(), F_OK) == 0 && endpoint_.Provide();
    UniqueFd fd = mayConnect ? ConnectTo(ContextSocketPath()) : UniqueFd();
    if (!fd) {
        return nullptr;
    }
    const Credentials who = CredentialsOf(fd);
    if (!IsTrusted(who.uid)) {
        IPC_LOGE("the context object is published by user %{public}u, who is not trusted", who.uid);
        errno = EACCES;
        return nullptr;
    }
    const auto greeting = std::make_shared<Greeting>();
    std::future<sptr<Peer>> answer = greeting->peer.get_future();
    const sptr<Link> link = open_({std::move(fd), who, nullptr}, greeting);
    if (link == nullptr) {
        return nullptr;
    }
    // An answer that comes later is not taken; one that has been taken is about to be here.
    const bool isLate = answer.wait_until(deadline) != std::future_status::ready && !greeting->isTaken.exchange(true);
    sptr<Peer> peer = !isLate && answer.wait_for(kClaimLimit) == std::future_status::ready ? answer.get() : nullptr;
    if (peer == nullptr) {
        link->Shutdown();
        errno = isLate ? ETIMEDOUT : ECONNRESET;
        return nullptr;
    }
    publisher_ = peer->Id();
    // The process may have been buried before it was known for the publisher.
    if (peer->Dead()) {
        Lose(peer->Id());
    }
    return peer;
}

}  // namespace VEXA::ipc
