// SPDX-License-Identifier: Apache-2.0
// Loaded into a process before all other libraries: makes one call of one function fail, as fault_control.h says.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fault_control.h"

using namespace VEXA::trials;

namespace {

FaultControl* g_control = nullptr;
int g_role = 0;

[[gnu::constructor]] void Begin()
{
    const char* const path = getenv("FAULT_CONTROL");
    const char* const role = getenv("FAULT_ROLE");
    const int fd = path != nullptr && role != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd >= 0) {
        void* const memory = mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        g_role = atoi(role);
        g_control = memory != MAP_FAILED ? static_cast<FaultControl*>(memory) : nullptr;
    }
}

bool Fails(const char* name, int reason)
{
    FaultControl* const control = g_control;
    if (control == nullptr || !control->isArmed || control->role != g_role ||
        strcmp(kFunctions[control->function], name) != 0 || control->calls.fetch_add(1) + 1 != control->nth) {
        return false;
    }
    errno = reason;
    return true;
}

}  // namespace

#define INTERPOSE(result, name, parameters, arguments, reason, failed)                       \
    extern "C" __attribute__((visibility("default"))) result name parameters                 \
    {                                                                                        \
        static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
        return Fails(#name, reason) ? failed : next arguments;                               \
    }
// The C library's own names: dlsym may allocate itself.
#define INTERPOSE_MALLOC(name, parameters, arguments)                       \
    extern "C" void* __libc_##name parameters;                              \
    extern "C" __attribute__((visibility("default"))) void* name parameters \
    {                                                                       \
        return Fails("malloc", ENOMEM) ? nullptr : __libc_##name arguments; \
    }

INTERPOSE_MALLOC(malloc, (size_t size), (size))
INTERPOSE_MALLOC(calloc, (size_t count, size_t size), (count, size))
INTERPOSE_MALLOC(realloc, (void* block, size_t size), (block, size))
INTERPOSE(int, pthread_create, (pthread_t * thread, const pthread_attr_t* how, void* (*body)(void*), void* argument),
    (thread, how, body, argument), EAGAIN, EAGAIN)
INTERPOSE(int, socket, (int domain, int type, int protocol), (domain, type, protocol), EMFILE, -1)
INTERPOSE(int, connect, (int fd, const sockaddr* to, socklen_t size), (fd, to, size), ENOMEM, -1)
INTERPOSE(int, accept4, (int fd, sockaddr* from, socklen_t* size, int flags), (fd, from, size, flags), EMFILE, -1)
INTERPOSE(ssize_t, send, (int fd, const void* bytes, size_t size, int flags), (fd, bytes, size, flags), ENOBUFS, -1)
INTERPOSE(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags), ENOMEM, -1)
INTERPOSE(int, epoll_create1, (int flags), (flags), EMFILE, -1)
INTERPOSE(int, epoll_ctl, (int set, int act, int fd, epoll_event* event), (set, act, fd, event), ENOMEM, -1)
INTERPOSE(int, epoll_wait, (int set, epoll_event* events, int most, int wait), (set, events, most, wait), ENOMEM, -1)
INTERPOSE(int, eventfd, (unsigned value, int flags), (value, flags), EMFILE, -1)
INTERPOSE(int, open, (const char* path, int flags, ...), (path, flags, 0600), EMFILE, -1)
INTERPOSE(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t from),
    (at, size, access, flags, fd, from), ENOMEM, MAP_FAILED)
