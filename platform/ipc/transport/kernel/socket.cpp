// SPDX-License-Identifier: Apache-2.0
#include "socket.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

bool FillAddress(const std::string& path, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

void SetTimeout(int fd, int option, std::chrono::milliseconds limit)
{
    const timeval value{limit.count() / 1000, (limit.count() % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, option, &value, sizeof(value));
}

UniqueFd ConnectSocket(const std::string& path, int extraFlags)
{
    sockaddr_un address;
    if (!FillAddress(path, address)) {
        return UniqueFd();
    }
    UniqueFd fd = UniqueFd::Make([&] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | extraFlags, 0); });
    if (!fd) {
        return fd;
    }
    // Bounds connect's wait for room in the backlog, however many signals come meanwhile.
    const Deadline deadline = std::chrono::steady_clock::now() + kConnectWait;
    std::chrono::milliseconds left = kConnectWait;
    int result;
    do {
        SetTimeout(fd.Get(), SO_SNDTIMEO, left);
        result = connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    } while (result != 0 && errno == EINTR && left.count() > 0);
    if (result != 0) {
        const int reason = errno;
        fd.Reset();
        errno = reason;
    }
    return fd;
}

// Waits for `events` until the deadline; false when it has passed.
bool WaitFor(int fd, short events, Deadline deadline)
{
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left < 0) {
            return false;
        }
        pollfd wait{fd, events, 0};
        const int ready = poll(&wait, 1, static_cast<int>(std::min<int64_t>(left + 1, 60'000)));
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true;
        }
    }
}

Transfer Outcome(ssize_t result, size_t& moved)
{
    if (result >= 0) {
        moved = static_cast<size_t>(result);
        return Transfer::DONE;
    }
    moved = 0;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return Transfer::WOULD_BLOCK;
    }
    return errno == EPIPE || errno == ECONNRESET ? Transfer::END : Transfer::FAILED;
}

Transfer Send(int fd, const void* bytes, size_t size, int flags, size_t& moved)
{
    ssize_t result;
    do {
        result = send(fd, bytes, size, MSG_NOSIGNAL | flags);
    } while (result < 0 && errno == EINTR);
    return Outcome(result, moved);
}

Transfer Receive(int fd, void* bytes, size_t size, int flags, size_t& moved)
{
    ssize_t result;
    do {
        result = recv(fd, bytes, size, flags);
    } while (result < 0 && errno == EINTR);
    return result == 0 && size > 0 ? Transfer::END : Outcome(result, moved);
}

}  // namespace

void TransportFdCloser::Close(int fd)
{
    // A child of fork has closed its copies already, and may use the numbers for something else.
    if (!ProcessLife::Forked()) {
        ProcessLife::CloseFd(fd);
    }
}

UniqueFd ConnectTo(const std::string& path)
{
    return ConnectSocket(path, 0);
}

UniqueFd ConnectAtOnce(const std::string& path)
{
    return ConnectSocket(path, SOCK_NONBLOCK);
}

UniqueFd ListenAt(const std::string& path)
{
    const std::string fresh = path + ".new";
    sockaddr_un address;
    if (!FillAddress(fresh, address)) {
        return UniqueFd();
    }
    UniqueFd fd = UniqueFd::Make([] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
    if (!fd) {
        return fd;
    }
    unlink(fresh.c_str());
    // Who may reach the socket is decided by the directory; who may call what, by the table of holders.
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(fresh.c_str(), 0666) != 0 || listen(fd.Get(), SOMAXCONN) != 0 ||
        rename(fresh.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        unlink(fresh.c_str());
        fd.Reset();
        errno = reason;
    }
    return fd;
}

UniqueFd AcceptFrom(const UniqueFd& listener)
{
    return UniqueFd::Make([&] {
        int fd;
        do {
            fd = accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC);
        } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
        return fd;
    });
}

Credentials CredentialsOf(const UniqueFd& socket)
{
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    Credentials result;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 && credentials.pid > 0) {
        result.pid = credentials.pid;
        result.uid = credentials.uid;
    }
    return result;
}

Transfer SendNow(int fd, const void* bytes, size_t size, size_t& moved)
{
    return Send(fd, bytes, size, MSG_DONTWAIT, moved);
}

Transfer ReceiveNow(int fd, void* bytes, size_t size, size_t& moved)
{
    return Receive(fd, bytes, size, MSG_DONTWAIT, moved);
}

Transfer SendAll(int fd, const void* bytes, size_t size, Deadline deadline)
{
    const uint8_t* next = static_cast<const uint8_t*>(bytes);
    for (;;) {
        size_t moved = 0;
        const Transfer result = Send(fd, next, size, MSG_DONTWAIT, moved);
        size -= moved;
        next += moved;
        if (size == 0) {
            return Transfer::DONE;
        }
        if (result == Transfer::WOULD_BLOCK && !WaitFor(fd, POLLOUT, deadline)) {
            return Transfer::WOULD_BLOCK;
        }
        if (result == Transfer::END || result == Transfer::FAILED) {
            return result;
        }
    }
}

Transfer ReceiveAtLeast(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved)
{
    uint8_t* const start = static_cast<uint8_t*>(bytes);
    // The common case is one call that waits in the kernel and brings the whole frame. A call that a signal ends would
    // wait its full time again, so the deadline takes over.
    const ssize_t received = recv(fd, start, most, 0);
    const bool interrupted = received < 0 && errno == EINTR;
    const Transfer result = received == 0 ? Transfer::END : Outcome(received, moved);
    if ((result != Transfer::DONE && !interrupted) || moved >= least) {
        return result;
    }
    size_t more = 0;
    const Transfer rest = ReceiveMore(fd, start + moved, least - moved, most - moved, deadline, more);
    moved += more;
    return rest;
}

Transfer ReceiveMore(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved)
{
    uint8_t* const start = static_cast<uint8_t*>(bytes);
    moved = 0;
    for (;;) {
        // What has come by the deadline counts, however late it is looked at: this process may have been stopped.
        const bool isLast = std::chrono::steady_clock::now() > deadline;
        size_t more = 0;
        const Transfer result = Receive(fd, start + moved, most - moved, MSG_DONTWAIT, more);
        moved += more;
        if (moved >= least) {
            return Transfer::DONE;
        }
        if (result == Transfer::END || result == Transfer::FAILED) {
            return result;
        }
        if (isLast) {
            return Transfer::WOULD_BLOCK;
        }
        if (result == Transfer::WOULD_BLOCK) {
            WaitFor(fd, POLLIN, deadline);
        }
    }
}

bool WaitReadable(int fd, std::chrono::milliseconds limit)
{
    // Not by a receive that waits: the kernel would wake it each time the peer has read what was sent to it.
    pollfd wait{fd, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(limit.count())) > 0;
}

void SetReceiveTimeout(int fd, std::chrono::milliseconds limit)
{
    SetTimeout(fd, SO_RCVTIMEO, limit);
}

uint64_t RandomNumber()
{
    uint64_t number = 0;
    while (number == 0) {
        if (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
            number = 0;
        }
    }
    return number;
}

}  // namespace VEXA::ipc
