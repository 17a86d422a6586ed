// SPDX-License-Identifier: Apache-2.0
#include "vexa/base/lock_rank.h"

#include <unistd.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>

namespace VEXA {
namespace {

#define VEXA_LOCK_RANK(name, guards) #name,
constexpr std::array kNames{VEXA_LOCK_RANKS(VEXA_LOCK_RANK)};
#undef VEXA_LOCK_RANK

// A bit for each rank. No constructor, destructor or memory: good in the exit handlers of threads and after fork. Where
// it is used it stands in the static block of thread-locals: it is reached in one step there, and LeakSanitizer takes
// the size of some blocks that dlopen makes for an address.
#ifdef VEXA_CHECK_LOCK_ORDER
[[gnu::tls_model("initial-exec")]]
#endif
constinit thread_local uint64_t t_held = 0;
static_assert(kNames.size() <= 64);

}  // namespace

void NoteLock(LockRank rank, LockStep step)
{
    const uint64_t bit = uint64_t{1} << static_cast<unsigned>(rank);
    if (step == LockStep::RELEASE) {
        t_held &= ~bit;
        return;
    }
    if (step == LockStep::TAKE && t_held >= bit) {
        const auto innermost = static_cast<size_t>(std::bit_width(t_held)) - 1;
        dprintf(STDERR_FILENO, "lock order: %s is taken while %s is held\n", kNames[static_cast<size_t>(rank)],
            kNames[innermost]);
        abort();
    }
    t_held |= bit;
}

}  // namespace VEXA
