// SPDX-License-Identifier: Apache-2.0
#include "connection_listener.h"

#include <sys/socket.h>

#include <cerrno>

namespace VEXA::ipc {
ConnectionListener::ConnectionListener(UniqueFd listener, Reactor& reactor, ConnectionCounts& counts, Take take)
    : EventHandler(std::move(listener)), reactor_(reactor), counts_(counts), take_(std::move(take))
{}

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
    UniqueFd fd = AcceptFrom(fd_);
    if (!fd) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && !paused_) {
            paused_ = reactor_.NeedTicks();
            reactor_.Change(Fd(), 0);
        }
        return false;
    }
    const Credentials who = CredentialsOf(fd);
    if (ConnectionCounts::Slot slot = counts_.Take(who)) {
        take_({std::move(fd), who, std::move(slot)});
    }
    counts_.AskWhereFew(std::chrono::steady_clock::now());
    return true;
}

void ConnectionListener::OnTick(Deadline)
{
    if (paused_) {
        paused_.reset();
        reactor_.Change(Fd(), Reactor::kReadEvents);
    }
}

}  // namespace VEXA::ipc
