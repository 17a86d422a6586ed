// SPDX-License-Identifier: Apache-2.0
#include "thread.h"

#include <sys/prctl.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <utility>

#include "ipc_log.h"

namespace VEXA::ipc {

bool StartThread(const char* name, std::function<void()> body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread([name, body = std::move(body)] {
            // The thread names itself: a name that another thread gives goes through /proc, and what has been looked
            // up there must be cleared away when the process ends, which can hold up its parent for seconds.
            prctl(PR_SET_NAME, name);
            body();
        }).detach();
    } catch (const std::exception& refusal) {
        IPC_LOGE("no thread %{public}s: %{public}s", name, refusal.what());
        started = false;
        errno = EAGAIN;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

}  // namespace VEXA::ipc
