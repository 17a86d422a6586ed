// SPDX-License-Identifier: Apache-2.0
#include "thread.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <csignal>
#include <memory>
#include <utility>

namespace VEXA::ipc {
namespace {

struct Start {
    const char* name;
    std::function<void()> body;
};

void* ThreadMain(void* argument)
{
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    // By itself: a name that another thread gives goes through /proc, and what has been looked up there of a process
    // must be cleared away when it ends, which can hold up its parent for seconds on a busy machine.
    prctl(PR_SET_NAME, start->name);
    start->body();
    return nullptr;
}

}  // namespace

bool StartThread(const char* name, std::function<void()> body)
{
    auto start = std::make_unique<Start>(Start{name, std::move(body)});
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const bool started = pthread_create(&thread, nullptr, &ThreadMain, start.get()) == 0;
    if (started) {
        (void)start.release();  // the thread's now
        pthread_detach(thread);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

}  // namespace VEXA::ipc
