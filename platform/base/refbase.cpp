// SPDX-License-Identifier: Apache-2.0
#include "vexa/base/refbase.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "vexa/base/delayed_ref_singleton.h"
#include "vexa/base/export.h"
#include "vexa/base/mutex.h"

namespace VEXA {
namespace {

std::atomic<bool> g_leaving{false};

struct MainThreadEnd {
    ~MainThreadEnd()
    {
        if (gettid() == getpid()) {
            g_leaving = true;
        }
    }
};

}  // namespace

bool RefBase::IsLeaving()
{
    return g_leaving;
}

void RefBase::NoteLeaving()
{
    thread_local const MainThreadEnd end;
    static_cast<void>(&end);
}

void RefBase::EndUnlessLeaving()
{
    if (!IsLeaving()) {
        dprintf(STDERR_FILENO, "an object is deleted while references to it are held\n");
        abort();
    }
}

}  // namespace VEXA
