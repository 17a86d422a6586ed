// SPDX-License-Identifier: Apache-2.0
#include "raw_stream.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "support/processes.h"

namespace VEXA::bench {
namespace {

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

bool WriteAll(int fd, const std::vector<char>& bytes)
{
    return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

bool ReadAll(int fd, std::vector<char>& bytes)
{
    size_t have = 0;
    while (have < bytes.size()) {
        const ssize_t result = read(fd, bytes.data() + have, bytes.size() - have);
        if (result <= 0) {
            return false;
        }
        have += static_cast<size_t>(result);
    }
    return true;
}

void Answer(int fd)
{
    MessageSizes sizes{};
    if (read(fd, &sizes, sizeof(sizes)) != sizeof(sizes)) {
        return;
    }
    std::vector<char> request(sizes.request);
    const std::vector<char> reply(sizes.reply);
    while (ReadAll(fd, request) && WriteAll(fd, reply)) {
    }
    close(fd);
}

}  // namespace

int ServeRawStream(const std::string& path)
{
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 16) != 0) {
        return 1;
    }
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            std::thread(&Answer, fd).detach();
        }
    }
}

RawConnection::RawConnection(const std::string& path, MessageSizes sizes)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), request_(sizes.request), reply_(sizes.reply)
{
    const sockaddr_un address = AddressOf(path);
    test::Eventually([&] { return connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0; });
    (void)!write(fd_, &sizes, sizeof(sizes));
}

RawConnection::~RawConnection()
{
    close(fd_);
}

bool RawConnection::Exchange()
{
    return WriteAll(fd_, request_) && ReadAll(fd_, reply_);
}

}  // namespace VEXA::bench
