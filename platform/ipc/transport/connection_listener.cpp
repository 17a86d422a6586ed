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
    return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

ConnectionListener::ConnectionListener(UniqueFd listener) : EventHandler(std::move(listener)), spare_(OpenSpare()) {}

void ConnectionListener::OnEvents(uint32_t)
{
    UniqueFd connection = AcceptFrom(fd_);
    if (!connection) {
        if (errno == EMFILE || errno == ENFILE) {
            spare_.Reset();
            connection = AcceptFrom(fd_);
            connection.Reset();
            spare_ = OpenSpare();
        }
        return;
    }
    IpcProcess& process = IpcProcess::Get();
    const Credentials credentials = CredentialsOf(connection);
    if (!process.AdmitConnection(credentials.uid)) {
        return;
    }
    const sptr<Link> link(new Link(std::move(connection)));
    if (!process.Loop().Add(link, EPOLLIN | EPOLLRDHUP)) {
        process.ForgetConnection(credentials.uid);
    }
}

}  // namespace VEXA::ipc
