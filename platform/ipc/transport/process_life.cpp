// SPDX-License-Identifier: Apache-2.0
#include "process_life.h"

#include <pthread.h>
#include <unistd.h>

namespace VEXA::ipc {

ProcessLife& ProcessLife::Get()
{
    static ProcessLife* const life = new ProcessLife;
    return *life;
}

void ProcessLife::Watch()
{
    MutexLock lock(mutex_);
    if (!watching_) {
        watching_ = true;
        pthread_atfork(&BeforeFork, &InParent, &InChild);
    }
}

void ProcessLife::Enter(int fd)
{
    const size_t index = static_cast<size_t>(fd);
    if (openFds_.size() <= index / 64) {
        openFds_.resize(index / 64 + 1);
    }
    openFds_[index / 64] |= uint64_t{1} << (index % 64);
}

void ProcessLife::CloseFd(int fd)
{
    const size_t index = static_cast<size_t>(fd);
    MutexLock lock(mutex_);
    openFds_[index / 64] &= ~(uint64_t{1} << (index % 64));
    close(fd);
}

void ProcessLife::BeforeFork() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    Get().mutex_.lock();
}

void ProcessLife::InParent() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    Get().mutex_.unlock();
}

void ProcessLife::InChild() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    ProcessLife& life = Get();
    life.forked_.store(true, std::memory_order_relaxed);
    life.CloseAllInChild();
    life.mutex_.unlock();
}

// Runs between fork and whatever the child does: system calls only.
void ProcessLife::CloseAllInChild()
{
    for (size_t word = 0; word < openFds_.size(); ++word) {
        for (uint64_t bits = openFds_[word]; bits != 0; bits &= bits - 1) {
            close(static_cast<int>(word * 64) + __builtin_ctzll(bits));
        }
        openFds_[word] = 0;
    }
}

}  // namespace VEXA::ipc
