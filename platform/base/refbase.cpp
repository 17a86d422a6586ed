// SPDX-License-Identifier: Apache-2.0
#include "vexa/base/refbase.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "vexa/base/delayed_ref_singleton.h"
#include "vexa/base/export.h"
#include "vexa/base/mutex.h"

namespace VEXA {
namespace {

std::atomic<bool> g_leaving{false};

struct MainThreadEnd {
    ~MainThreadEnd() { g_leaving = true; }
};

void NoteEndOfMainThread()
{
    thread_local bool isNoted = false;
    if (!std::exchange(isNoted, true) && gettid() == getpid()) {
        thread_local const MainThreadEnd end;
        static_cast<void>(&end);
    }
}

// Where the main thread loads this, the C library makes its note now: it ends a process that has no memory for that.
[[gnu::constructor]] void NoteAtLoad()
{
    NoteEndOfMainThread();
}

}  // namespace

bool RefBase::IsLeaving()
{
    return g_leaving;
}

void RefBase::NoteLeaving()
{
    NoteEndOfMainThread();
}

void RefBase::EndUnlessLeaving()
{
    if (!IsLeaving()) {
        dprintf(STDERR_FILENO, "an object is deleted while references to it are held\n");
        abort();
    }
}

}  // namespace VEXA
