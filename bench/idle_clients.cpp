// SPDX-License-Identifier: Apache-2.0
#include "idle_clients.h"

#include <cstdio>

#include "bench_service.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"

namespace VEXA::bench {
namespace {

constexpr std::chrono::seconds ALL_CLIENTS_LIMIT(60);

bool HasCallbacks(size_t count)
{
    ServiceState state;
    return AskState(state) && state.callbacks == count;
}

// The client's process. A fork of a process that has no transport yet gets one of its own, and is many times cheaper
// than a program that is linked anew.
[[noreturn]] void BeClient(pid_t parent, int ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char isServed = UpdateEngine::MigrateServerKits::GetKitsInstance().On({[](const auto&, const auto&) {}}) == 0;
    (void)!write(ready, &isServed, 1);
    while (isServed != 0 && getppid() == parent) {
        pause();
    }
    _exit(1);
}

}  // namespace

int RunIdleClients(size_t count)
{
    const pid_t self = getpid();
    for (size_t i = 1; i <= count; ++i) {
        int ready[2];
        const pid_t client = pipe2(ready, O_CLOEXEC) == 0 ? fork() : -1;
        if (client == 0) {
            BeClient(self, ready[1]);
        }
        close(ready[1]);
        char isServed = 0;
        if (client < 0 || read(ready[0], &isServed, 1) != 1 || isServed == 0) {
            std::fprintf(stderr, "migrate_bench: idle client %zu of %zu is not served\n", i, count);
            return 1;
        }
        close(ready[0]);
    }
    for (;;) {
        pause();
    }
}

IdleClients::IdleClients(const std::string& program, size_t count)
    : count_(count), parent_({program, "--idle-clients", std::to_string(count)})
{}

bool IdleClients::AreServed() const
{
    bool areServed = false;
    test::Eventually(
        [&] {
            areServed = HasCallbacks(count_);
            return areServed || !test::IsRunning(parent_.Pid());
        },
        ALL_CLIENTS_LIMIT);
    return areServed;
}

bool IdleClients::End()
{
    parent_.Kill();
    return test::Eventually([] { return HasCallbacks(0); }, ALL_CLIENTS_LIMIT);
}

}  // namespace VEXA::bench
