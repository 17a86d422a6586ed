// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <thread>

#include "vexa/base/delayed_ref_singleton.h"
#include "vexa/base/mutex.h"
#include "vexa/base/refbase.h"

namespace VEXA {
namespace {

Mutex g_outer(LockRank::Engine);
Mutex g_middle(LockRank::CallbackHub);
Mutex g_inner(LockRank::Mailbox);
CondVar g_changed;

// Outside the analysis at compile time, which would refuse what dies here.
void Take(Mutex& mutex) VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.lock();
}

void Wait(Mutex& mutex) VEXA_REQUIRES(mutex)
{
    g_changed.WaitFor(mutex, std::chrono::milliseconds(1), [] { return false; });
}

TEST(LockRankTest, AThreadTakesMutexesFromTheOutermostInwardsOrEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    MutexLock outer(g_outer);
    MutexLock inner(g_inner);
    inner.Unlock();
    // A released mutex counts no more; a wait holds its mutex again afterwards.
    MutexLock middle(g_middle);
    Wait(g_middle);
    EXPECT_DEATH(Take(g_middle), "CallbackHub is taken while CallbackHub is held");
    inner.Lock();
    outer.Unlock();  // in whatever order
    EXPECT_DEATH(Take(g_outer), "Engine is taken while Mailbox is held");
    EXPECT_DEATH(Wait(g_middle), "CallbackHub is taken while Mailbox is held");  // again, at its end
    inner.Unlock();
    EXPECT_DEATH(Take(g_outer), "Engine is taken while CallbackHub is held");
    // One that is taken without waiting may come in any order, and counts.
    if (!g_outer.try_lock()) {
        FAIL() << "nobody holds it";
    }
    middle.Unlock();
    EXPECT_DEATH(Take(g_outer), "Engine is taken while Engine is held");
    g_outer.unlock();
    outer.Lock();
}

struct Single : DelayedRefSingleton<Single> {
    static inline std::atomic<int> made{0};
    Single() { ++made, std::this_thread::sleep_for(std::chrono::milliseconds(50)); }
};

TEST(DelayedRefSingletonTest, IsMadeOnceWhenTwoThreadsAskAtFirst)
{
    std::thread other(&Single::GetInstance);
    Single::GetInstance();
    other.join();
    EXPECT_EQ(Single::made, 1);
}

struct Counted : RefBase {
    using RefBase::NoteLeaving;
};

TEST(RefBaseTest, WeakReferencesKeepTheCountsAlone)
{
    const size_t before = mallinfo2().uordblks;
    for (int round = 0; round < 1000; ++round) {
        wptr<Counted> weak;
        sptr<Counted> strong(new Counted);
        EXPECT_EQ(std::exchange(weak, strong).Promote(), nullptr);
        const wptr<Counted> moved = wptr<Counted>(weak);
        EXPECT_EQ(moved.Promote(), strong);
        strong.clear();
        EXPECT_TRUE(moved.Promote() == nullptr && moved == weak && moved != nullptr);
    }
    EXPECT_LT(mallinfo2().uordblks, before + 8000);
}

TEST(RefBaseTest, AnObjectThatIsHeldGoesWithTheMainThreadOrEndsTheProcess)
{
    static const auto deleteHeld = [] { Counted().IncStrongRef(); };
    EXPECT_DEATH((std::thread(&Counted::NoteLeaving).join(), deleteHeld()), "deleted while references to it are held");
    EXPECT_EXIT((std::atexit(deleteHeld), std::exit(0)), testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace VEXA
