// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace VEXA {

// Owns a file descriptor; a negative one is none. `Closer::Close(int)` is what ends one.
template <typename Closer>
class BasicUniqueFd {
public:
    BasicUniqueFd() = default;
    explicit BasicUniqueFd(int fd) : fd_(fd) {}
    BasicUniqueFd(BasicUniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    BasicUniqueFd& operator=(BasicUniqueFd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~BasicUniqueFd() { Reset(); }

    void Reset()
    {
        if (fd_ >= 0) {
            Closer::Close(std::exchange(fd_, -1));
        }
    }
    // Gives the descriptor to the caller.
    int Release() { return std::exchange(fd_, -1); }
    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

struct FdCloser {
    static void Close(int fd) { close(fd); }
};

using UniqueFd = BasicUniqueFd<FdCloser>;

}  // namespace VEXA
