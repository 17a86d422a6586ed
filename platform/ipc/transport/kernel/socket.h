// SPDX-License-Identifier: Apache-2.0
// The one seam to the kernel's sockets: interrupted calls, close-on-exec and SIGPIPE are dealt with here.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "credentials.h"
#include "process_life.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::ipc {

using Deadline = std::chrono::steady_clock::time_point;

struct TransportFdCloser {
    static void Close(int fd);
};

// Owns a descriptor of the transport. Known to ProcessLife, so that a child of fork closes it.
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

// A connected stream socket; without a value when nobody listens there or kConnectWait has run out. errno says why.
UniqueFd ConnectTo(const std::string& path);
// The same, never waiting: a full backlog is a failure too.
UniqueFd ConnectAtOnce(const std::string& path);
// A listening socket at the path. It appears there only once it listens, so that whoever sees it can connect.
UniqueFd ListenAt(const std::string& path);
UniqueFd AcceptFrom(const UniqueFd& listener);
Credentials CredentialsOf(const UniqueFd& socket);

// How a transfer ended.
enum class Transfer { DONE, WOULD_BLOCK, END, FAILED };

// Moves up to `size` bytes without waiting and tells how many in `moved`.
Transfer SendNow(int fd, const void* bytes, size_t size, size_t& moved);
Transfer ReceiveNow(int fd, void* bytes, size_t size, size_t& moved);

// Sends all of it, waiting until the deadline. WOULD_BLOCK: the deadline has passed.
Transfer SendAll(int fd, const void* bytes, size_t size, Deadline deadline);
// Receives at least `least` and at most `most` bytes. The socket's own receive time-out bounds the first wait, unless a
// signal interrupts it.
Transfer ReceiveAtLeast(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved);
// The same, bounded by the deadline only.
Transfer ReceiveMore(int fd, void* bytes, size_t least, size_t most, Deadline deadline, size_t& moved);
// Waits until there is something to receive, the end included; false when there was nothing for so long.
bool WaitReadable(int fd, std::chrono::milliseconds limit);
void SetReceiveTimeout(int fd, std::chrono::milliseconds limit);

// 64 random bits from the kernel, never 0.
uint64_t RandomNumber();

}  // namespace VEXA::ipc
