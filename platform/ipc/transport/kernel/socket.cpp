// SPDX-License-Identifier: Apache-2.0
#include "socket.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "ipc_log.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

// A stream socket and the address of the path for it; without a value, and errno set, when there can't be one.
UniqueFd MakeSocket(const std::string& path, int flags, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return UniqueFd();
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return UniqueFd::Make([&] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0); });
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

bool IsOutOfMemory()
{
    return errno == ENOBUFS || errno == ENOMEM;
}

template <typename Call>
ssize_t Try(const Call& call)
{
    ssize_t result = TEMP_FAILURE_RETRY(call());
    for (int tries = 0; result < 0 && IsOutOfMemory() && tries < kMemoryTries; ++tries) {
        std::this_thread::sleep_for(kMemoryPause);
        result = TEMP_FAILURE_RETRY(call());
    }
    return result;
}

Transfer Outcome(ssize_t result, size_t& moved)
{
    moved = result > 0 ? static_cast<size_t>(result) : 0;
    if (result >= 0) {
        return Transfer::DONE;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || IsOutOfMemory()) {
        return Transfer::WOULD_BLOCK;
    }
    return errno == EPIPE || errno == ECONNRESET ? Transfer::END : Transfer::FAILED;
}

}  // namespace

void TransportFdCloser::Close(int fd)
{
    // A child of fork has closed its copies already, and may use the numbers for something else.
    if (!ProcessLife::Forked()) {
        const int reason = errno;  // may be why the descriptor is given up
        ProcessLife::CloseFd(fd);
        errno = reason;
    }
}

UniqueFd ConnectTo(const std::string& path, int flags)
{
    sockaddr_un address;
    UniqueFd fd = MakeSocket(path, flags, address);
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
        fd.Reset();
    }
    return fd;
}

UniqueFd ConnectAtOnce(const std::string& path)
{
    return ConnectTo(path, SOCK_NONBLOCK);
}

UniqueFd ListenAt(const std::string& path)
{
    const std::string fresh = path + ".new";
    sockaddr_un address;
    UniqueFd fd = MakeSocket(fresh, SOCK_NONBLOCK, address);
    const char* failed = "socket";
    if (fd) {
        unlink(fresh.c_str());
        // The directory decides who may reach the socket, and the table of holders who may call what.
        failed = bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ? "bind"
                 : chmod(fresh.c_str(), 0666) != 0                                                 ? "chmod"
                 : listen(fd.Get(), SOMAXCONN) != 0                                                ? "listen"
                 : rename(fresh.c_str(), path.c_str()) != 0                                        ? "rename"
                                                                                                   : nullptr;
    }
    if (failed != nullptr) {
        const int reason = errno;
        IPC_LOGE("can't listen at %{public}s: %{public}s: %{public}s", path.c_str(), failed, std::strerror(reason));
        unlink(fresh.c_str());
        errno = reason;
        fd.Reset();
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
        result.gid = credentials.gid;
    }
    return result;
}

UniqueFd OpenProcess(pid_t process)
{
    return UniqueFd::Make([&] { return static_cast<int>(syscall(SYS_pidfd_open, process, 0)); });
}

std::vector<gid_t> GroupsOf(const Credentials& who, int socket)
{
    if (who.pid <= 0) {
        return {};
    }
    std::vector<gid_t> groups{who.gid};
    socklen_t size = 0;  // the kernel tells how much it needs
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size) != 0 && errno == ERANGE) {
        groups.resize(1 + size / sizeof(gid_t));
        groups.resize(getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, &groups[1], &size) == 0 ? groups.size() : 1);
    }
    return groups;
}

Transfer SendNow(int fd, const void* bytes, size_t size, size_t& moved)
{
    return Outcome(Try([&] { return send(fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT); }), moved);
}

Transfer ReceiveNow(int fd, void* bytes, size_t size, size_t& moved)
{
    const ssize_t received = Try([&] { return recv(fd, bytes, size, MSG_DONTWAIT); });
    const Transfer result = Outcome(received, moved);
    return received == 0 && size > 0 ? Transfer::END : result;
}

Transfer SendAll(int fd, const void* bytes, size_t size, Deadline deadline, size_t& sent)
{
    for (;;) {
        size_t moved = 0;
        const Transfer result = SendNow(fd, static_cast<const uint8_t*>(bytes) + sent, size - sent, moved);
        sent += moved;
        const bool hasRoom =
            result == Transfer::DONE || (result == Transfer::WOULD_BLOCK && WaitFor(fd, POLLOUT, deadline));
        if (sent == size || !hasRoom) {
            return result;
        }
    }
}

Transfer ReceiveAtLeast(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved)
{
    // The common case is one call that waits in the kernel and brings the whole frame. A call that a signal ends would
    // wait its full time again, so the deadline takes over, as it does where memory is short.
    const ssize_t received = recv(fd, bytes, most, 0);
    const Transfer result = Outcome(received, moved);
    if (received == 0) {
        return Transfer::END;
    }
    const bool needsMore = result == Transfer::DONE ? moved < least : errno == EINTR || IsOutOfMemory();
    return needsMore ? ReceiveMore(fd, bytes, least, most, deadline, moved) : result;
}

Transfer ReceiveMore(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& have)
{
    for (;;) {
        // Bytes that have come by the deadline count, however late they are read: this process may have been stopped.
        const bool isLast = std::chrono::steady_clock::now() > deadline;
        size_t moved = 0;
        const Transfer result = ReceiveNow(fd, static_cast<uint8_t*>(bytes) + have, most - have, moved);
        have += moved;
        if (have >= least) {
            return Transfer::DONE;
        }
        if (result == Transfer::WOULD_BLOCK && !isLast) {
            WaitFor(fd, POLLIN, deadline);
        } else if (result != Transfer::DONE) {
            return result;
        }
    }
}

bool WaitReadable(int fd, std::chrono::milliseconds limit)
{
    // A receive that waits would be woken each time the peer has read what was sent to it.
    pollfd wait{fd, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(limit.count())) > 0;
}

void SetTimeout(int fd, int option, std::chrono::milliseconds limit)
{
    const timeval value{limit.count() / 1000, (limit.count() % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, option, &value, sizeof(value));
}

uint64_t RandomNumber()
{
    uint64_t number = 0;
    while (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number)) || number == 0) {
    }
    return number;
}

}  // namespace VEXA::ipc
