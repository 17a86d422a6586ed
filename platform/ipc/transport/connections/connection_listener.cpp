// SPDX-License-Identifier: Apache-2.0
#include "connection_listener.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

namespace VEXA::ipc {
namespace {

UniqueFd OpenSpare()
{
    return UniqueFd::Make([] { return open("/dev/null", O_RDONLY | O_CLOEXEC); });
}

}  // namespace

ConnectionListener::ConnectionListener(UniqueFd listener, Reactor& reactor, ConnectionCounts& counts, Take take)
    : EventHandler(std::move(listener)), reactor_(reactor), counts_(counts), take_(std::move(take)), spare_(OpenSpare())
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
        return errno != EAGAIN && errno != EWOULDBLOCK && TurnAway();
    }
    const Credentials who = CredentialsOf(fd);
    if (ConnectionCounts::Slot slot = counts_.Take(who.uid)) {
        take_({std::move(fd), who, std::move(slot)});
    }
    return true;
}

bool ConnectionListener::TurnAway()
{
    spare_.Reset();
    AcceptFrom(fd_);
    spare_ = OpenSpare();
    if (!spare_ && !paused_) {
        paused_ = reactor_.NeedTicks();
        reactor_.Change(Fd(), 0);
    }
    return !paused_;
}

void ConnectionListener::OnTick(Deadline)
{
    if (paused_) {
        paused_.reset();
        reactor_.Change(Fd(), Reactor::kReadEvents);
    }
}

}  // namespace VEXA::ipc
