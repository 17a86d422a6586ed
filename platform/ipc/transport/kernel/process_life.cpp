// SPDX-License-Identifier: Apache-2.0
#include "process_life.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>

namespace VEXA::ipc {

ProcessLife& ProcessLife::Get()
{
    static ProcessLife* const life = new ProcessLife;
    return *life;
}

void ProcessLife::Watch()
{
    ProcessLife& life = Get();
    MutexLock lock(life.mutex_);
    if (!life.watching_) {
        life.watching_ = true;
        pthread_atfork(&BeforeFork, &InParent, &InChild);
    }
}

void ProcessLife::Enter(int fd)
{
    const size_t index = static_cast<size_t>(fd);
    isOpen_.resize(std::max(isOpen_.size(), index + 1));
    isOpen_[index] = true;
}

void ProcessLife::CloseFd(int fd)
{
    const size_t index = static_cast<size_t>(fd);
    ProcessLife& life = Get();
    MutexLock lock(life.mutex_);
    life.isOpen_[index] = false;
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
    forked_.store(true, std::memory_order_relaxed);
    life.CloseAllInChild();
    life.mutex_.unlock();
}

// Runs between fork and whatever the child does: system calls only.
void ProcessLife::CloseAllInChild()
{
    for (size_t fd = 0; fd < isOpen_.size(); ++fd) {
        if (isOpen_[fd]) {
            close(static_cast<int>(fd));
            isOpen_[fd] = false;
        }
    }
}

}  // namespace VEXA::ipc
