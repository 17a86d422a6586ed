// SPDX-License-Identifier: Apache-2.0
// The kernel's sockets. Only this file deals with interrupted calls, close-on-exec and SIGPIPE.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "credentials.h"
#include "process_life.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::ipc {

using Deadline = std::chrono::steady_clock::time_point;

struct TransportFdCloser {
    static void Close(int fd);
};

// Owns a descriptor of the transport. ProcessLife knows of it, so that a child of fork closes it.
class UniqueFd : public BasicUniqueFd<TransportFdCloser> {
public:
    UniqueFd() = default;
    // Takes what `open` returns: a descriptor that nobody else owns, or -1.
    template <typename Open>
    static UniqueFd Make(const Open& open)
    {
        return UniqueFd(ProcessLife::OpenFd(open));
    }

private:
    explicit UniqueFd(int fd) : BasicUniqueFd(fd) {}
};

// A connected stream socket; without a value, and errno set, when nobody listens there or kConnectWait has run out.
UniqueFd ConnectTo(const std::string& path, int flags = 0);
// Does the same without waiting: a full backlog is a failure too.
UniqueFd ConnectAtOnce(const std::string& path);
// A listening socket at the path. It appears there only once it listens, so that whoever sees it can connect. Without a
// value, with errno and a log line, when there can't be one.
UniqueFd ListenAt(const std::string& path);
UniqueFd AcceptFrom(const UniqueFd& listener);
Credentials CredentialsOf(const UniqueFd& socket);
// Becomes readable when the process has ended. Without a value, and errno set, where the kernel can't tell; ESRCH: it
// has ended.
UniqueFd OpenProcess(pid_t process);
// The groups of the process at the other end, the primary one first; an unknown one is in none.
std::vector<gid_t> GroupsOf(const Credentials& who, int socket);

// Says how a transfer ended.
enum class Transfer { DONE, WOULD_BLOCK, END, FAILED };

// Moves up to `size` bytes without waiting and tells how many in `moved`. Where the kernel is short of memory, that
// takes a few kMemoryPause and then is WOULD_BLOCK: whoever tries again at once does not spin.
Transfer SendNow(int fd, const void* bytes, size_t size, size_t& moved);
Transfer ReceiveNow(int fd, void* bytes, size_t size, size_t& moved);

// Sends all bytes but the first `sent`, which it counts on, and waits for room until the deadline. WOULD_BLOCK: the
// deadline has passed.
Transfer SendAll(int fd, const void* bytes, size_t size, Deadline deadline, size_t& sent);
// Receives at least `least` and at most `most` bytes, and tells how many in `moved`. The socket's own receive time-out
// bounds the first wait, unless a signal interrupts it.
Transfer ReceiveAtLeast(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved);
// Does the same where the first `have` bytes have been received already, and is bounded by the deadline only.
Transfer ReceiveMore(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& have);
// Waits until there is something to receive, the end included; false when there was nothing for so long.
bool WaitReadable(int fd, std::chrono::milliseconds limit);
// Sets SO_RCVTIMEO or SO_SNDTIMEO.
void SetTimeout(int fd, int option, std::chrono::milliseconds limit);

// 64 random bits from the kernel, never 0.
uint64_t RandomNumber();

}  // namespace VEXA::ipc
