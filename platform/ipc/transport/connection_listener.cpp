// SPDX-License-Identifier: Apache-2.0
#include "connection_listener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

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
    Accept();
}

void ConnectionListener::AcceptAll()
{
    for (int count = 0; count < SOMAXCONN && !paused_ && Accept(); ++count) {
    }
}

bool ConnectionListener::Accept()
{
    UniqueFd connection = AcceptFrom(fd_);
    IpcProcess& process = IpcProcess::Get();
    if (!connection) {
        const int reason = errno;
        if (reason == EAGAIN || reason == EWOULDBLOCK) {
            return false;
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
        return !paused_;
    }
    const Credentials credentials = CredentialsOf(connection);
    if (!process.AdmitConnection(credentials.uid)) {
        return true;
    }
    const sptr<Link> link(new Link(std::move(connection)));
    if (!process.Loop().Add(link, EPOLLIN | EPOLLRDHUP)) {
        process.ForgetConnection(credentials.uid);
    }
    return true;
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
