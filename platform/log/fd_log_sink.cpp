// SPDX-License-Identifier: Apache-2.0
// The text sinks: standard error and a file.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "log_text.h"
#include "vexa/log/log_sink.h"

namespace VEXA {
namespace {

// Writable at once, and with somebody at the other end (a write to a pipe without reader would raise SIGPIPE).
bool IsWritable(int fd)
{
    pollfd state{fd, POLLOUT, 0};
    return poll(&state, 1, 0) == 1 && state.revents == POLLOUT;
}

// A pipe that was writable a moment ago may have been filled by another writer since; where the kernel knows the flag,
// even this write can't wait.
ssize_t WriteToPipe(int fd, iovec piece)
{
    const ssize_t written = pwritev2(fd, &piece, 1, -1, RWF_NOWAIT);
    if (written < 0 && (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)) {
        return write(fd, piece.iov_base, piece.iov_len);
    }
    return written;
}

// One attempt that doesn't wait. The descriptor may be shared with others, so its mode is left alone.
bool WriteWithoutWaiting(int fd, std::string_view line)
{
    struct stat status {};  // stays zero where the descriptor is closed: then it is not writable either
    fstat(fd, &status);
    ssize_t written = -1;
    if (S_ISREG(status.st_mode)) {
        written = write(fd, line.data(), line.size());
    } else if (S_ISSOCK(status.st_mode)) {
        written = send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (IsWritable(fd)) {
        written = S_ISFIFO(status.st_mode) ? WriteToPipe(fd, {const_cast<char*>(line.data()), line.size()})
                                           : write(fd, line.data(), line.size());
    }
    return written == static_cast<ssize_t>(line.size());
}

class FdLogSink : public LogSink {
public:
    FdLogSink(int fd, bool owned) : fd_(fd), owned_(owned) {}
    ~FdLogSink() override
    {
        if (owned_) {
            close(fd_);
        }
    }

    bool Write(const LogRecord& record) override
    {
        LineBuffer line;
        ComposeLine(line, record);
        return WriteWithoutWaiting(fd_, line.Terminated('\n'));
    }

private:
    const int fd_;
    const bool owned_;
};

}  // namespace

std::unique_ptr<LogSink> MakeStderrLogSink()
{
    return std::make_unique<FdLogSink>(STDERR_FILENO, false);
}

std::unique_ptr<LogSink> MakeFileLogSink(const std::string& path)
{
    // Non-blocking for the case that the path names a pipe or a terminal.
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    return fd < 0 ? nullptr : std::make_unique<FdLogSink>(fd, true);
}

}  // namespace VEXA
