// SPDX-License-Identifier: Apache-2.0
// The yardstick: a stream socket with nothing around it, a blocking write and a blocking read on each side.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace VEXA::bench {

// The bytes of a message in each direction.
struct MessageSizes {
    size_t request;
    size_t reply;
};

// Listens at `path` and answers each connection on a thread of its own, until the process is killed. Returns 1 when it
// can't listen.
int ServeRawStream(const std::string& path);

class RawConnection {
public:
    // Connects to a server that may be about to start, and tells it the sizes.
    RawConnection(const std::string& path, MessageSizes sizes);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // A request out, a reply in. False when the connection has ended.
    bool Exchange();

private:
    int fd_;
    std::vector<char> request_;
    std::vector<char> reply_;
};

}  // namespace VEXA::bench
