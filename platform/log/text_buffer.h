// SPDX-License-Identifier: Apache-2.0
// A text of bounded length on the stack.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace VEXA {

template <size_t Capacity>
class TextBuffer {
public:
    static constexpr std::string_view kTruncated = "<truncated>";
    static_assert(Capacity > kTruncated.size());

    void Append(std::string_view text)
    {
        const size_t taken = std::min(text.size(), Room());
        std::memcpy(data_ + size_, text.data(), taken);
        Advance(text.size());
    }
    void Append(size_t count, char filler)
    {
        std::memset(data_ + size_, filler, std::min(count, Room()));
        Advance(count);
    }

    // For writing in place: Room() bytes and a final NUL at End(), then Advance by what was needed, which may be more
    // than the room.
    char* End() { return data_ + size_; }
    size_t Room() const { return Capacity - size_; }
    void Advance(size_t needed)
    {
        if (needed > Room()) {
            size_ = Capacity;
            std::memcpy(data_ + Capacity - kTruncated.size(), kTruncated.data(), kTruncated.size());
            truncated_ = true;
        } else {
            size_ += needed;
        }
    }

    bool IsTruncated() const { return truncated_; }
    std::string_view View() const { return {data_, size_}; }
    // The text with one more character, for which there is always room.
    std::string_view Terminated(char terminator)
    {
        data_[size_] = terminator;
        return {data_, size_ + 1};
    }

private:
    char data_[Capacity + 1];
    size_t size_ = 0;
    bool truncated_ = false;
};

}  // namespace VEXA
