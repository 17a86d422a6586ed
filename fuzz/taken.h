// SPDX-License-Identifier: Apache-2.0
// What the program has taken and not given back: blocks of memory from operator new, and descriptors. Included once in
// a program.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <new>

namespace VEXA::test {

inline std::atomic<ptrdiff_t> liveBlocks = 0;

inline ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace VEXA::test

#ifndef VEXA_CHECK_LOCK_ORDER  // where a sanitizer may have its own
[[gnu::noinline]] void* operator new(size_t size)
{
    void* const block = std::malloc(size);
    ++VEXA::test::liveBlocks;
    return block != nullptr ? block : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept
{
    VEXA::test::liveBlocks -= block != nullptr ? 1 : 0;
    std::free(block);
}
void operator delete(void* block, size_t) noexcept
{
    operator delete(block);
}
#endif
