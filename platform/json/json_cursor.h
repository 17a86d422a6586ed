// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VEXA {

// Where look-ups in an object begin, in one word, so that threads which race to move it leave it whole. Keys are mostly
// asked for in their order: the next one then stands at the cursor, and one comparison finds it. Of several members
// with one key the first must be found, so the cursor remembers, in a filter of 56 bits, the keys that it has passed; a
// key that may be among them is sought from the start.
class JsonCursor {
public:
    static constexpr size_t LAST_POSITION = 0xFF;

    explicit JsonCursor(uint64_t word) : word_(word) {}
    uint64_t Word() const { return word_; }

    // Every key before this position has been passed; the member just before is the first with its key.
    size_t Position() const { return word_ & LAST_POSITION; }
    // False: no member before the position has this key.
    bool MayHavePassed(std::string_view key) const { return (word_ & Bit(key)) != 0; }

    // Passes the member at the position, which must be less than LAST_POSITION.
    void Pass(std::string_view key) { word_ = (word_ | Bit(key)) + 1; }

private:
    static uint64_t Bit(std::string_view key)
    {
        if (key.empty()) {
            return uint64_t{1} << 8;
        }
        const auto byte = [key](size_t i) { return static_cast<unsigned>(static_cast<unsigned char>(key[i])); };
        const unsigned mixed = byte(0) * 7 + byte(key.size() / 2) * 13 + byte(key.size() - 1) * 29;
        return uint64_t{1} << (8 + (mixed + static_cast<unsigned>(key.size()) * 3) % 256 * 56 / 256);
    }

    uint64_t word_;
};

}  // namespace VEXA
