// SPDX-License-Identifier: Apache-2.0
#include "connection_listener.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>

#include "link.h"
#include "process.h"

namespace VEXA::ipc {
namespace {

UniqueFd OpenSpare()
{
    return UniqueFd::Make([] { return open("/dev/null", O_RDONLY | O_CLOEXEC); });
}

}  // namespace

ConnectionListener::ConnectionListener(UniqueFd listener) : EventHandler(std::move(listener)), spare_(OpenSpare()) {}

ConnectionListener::~ConnectionListener()
{
    if (paused_) {
        --IpcProcess::Get().Loop().Waiting();
    }
}

void ConnectionListener::OnEvents(uint32_t)
{
    UniqueFd connection = AcceptFrom(fd_);
    IpcProcess& process = IpcProcess::Get();
    if (!connection) {
        const int reason = errno;
        if (reason == EAGAIN || reason == EWOULDBLOCK) {
            return;
        }
        spare_.Reset();
        connection = AcceptFrom(fd_);
        connection.Reset();
        spare_ = OpenSpare();
        if (!spare_ && !paused_) {
            paused_ = true;
            process.Loop().Change(Fd(), 0);
            ++process.Loop().Waiting();
        }
        return;
    }
    const Credentials credentials = CredentialsOf(connection);
    if (!process.AdmitConnection(credentials.uid)) {
        return;
    }
    const sptr<Link> link(new Link(std::move(connection)));
    if (!process.Loop().Add(link, EPOLLIN | EPOLLRDHUP)) {
        process.ForgetConnection(credentials.uid);
    }
}

void ConnectionListener::OnTick(Deadline)
{
    if (paused_) {
        paused_ = false;
        --IpcProcess::Get().Loop().Waiting();
        IpcProcess::Get().Loop().Change(Fd(), EPOLLIN);
    }
}

}  // namespace VEXA::ipc
