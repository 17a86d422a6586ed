// SPDX-License-Identifier: Apache-2.0
// The order in which mutexes are taken. Every mutex of the process has one of these ranks.
#pragma once

#include <cstdint>

#include "vexa/base/export.h"

// RANK(name, what it guards), outermost first: a thread takes a mutex only while every mutex that it holds stands above
// it. Mutexes of one rank are never held together. The platform ranks the mutexes of its users too, for the order is
// one of the whole process.
#define VEXA_LOCK_RANKS(RANK)                                                                                      \
    RANK(Program,                                                                                                  \
        "the state of a program or a test; outermost, since the library holds nothing while it calls their code")  \
    RANK(Singleton, "the making of a process's only instance, whose constructor may take anything")                \
    RANK(KitsService, "the client's connection to its service; held for a whole lookup, so that others share it")  \
    RANK(KitsObservers, "the client's reserve observers; held while they are registered again")                    \
    RANK(KitsCallback, "the client's progress callback")                                                           \
    RANK(KitsOverlap, "the count of registrations that are under way")                                             \
    RANK(KitsGate, "the handlers that are running, for whoever waits for their end")                               \
    RANK(LoadSaInstance, "the pointer to the process's loader of services")                                        \
    RANK(EngineChange, "a change of the service's state, until the disk has taken it")                             \
    RANK(Engine, "the service's tasks, reservations and files")                                                    \
    RANK(PackageCatalog, "the manifests that the service has read")                                                \
    RANK(CallbackHub, "who receives the service's events; the engine tells it of one under its own mutex")         \
    RANK(Mailbox, "one receiver's events that wait; the hub posts to all under its own mutex")                     \
    RANK(DeliveryThreads, "the deliveries that wait for their time; a mailbox adds one under its own mutex")       \
    RANK(ServiceTable, "the manager's services and the programs it has started; held while one is started")        \
    RANK(PendingLoad, "who waits for the outcome of a load")                                                       \
    RANK(LoadOutcome, "the outcome for which a thread waits")                                                      \
    RANK(OwnServices, "the services that this process has registered")                                             \
    RANK(ManagerClient, "the process's proxy of the manager; asked whether it is dead")                            \
    RANK(TestManager, "a test's manager: it asks its objects whether they are dead")                               \
    RANK(TestObject, "the script of a test's object")                                                              \
    RANK(Brokers, "the makers of proxies, by descriptor")                                                          \
    RANK(Context, "the connection to the manager; held while connecting, so that first uses share one")            \
    RANK(ProcessStart, "the start of the transport; held while it starts, and while the manager publishes itself") \
    RANK(ContextPublisher, "the lock and the socket of the manager; held while they are made")                     \
    RANK(LocalEndpoint, "a socket of this process in the runtime directory; held while it is made")                \
    RANK(RuntimeWatch, "the watch for sockets that go and a manager that comes back")                              \
    RANK(PeerDirectory, "the peers by endpoint, and which endpoints are dead")                                     \
    RANK(PeerObjects, "the objects of one peer that this process holds")                                           \
    RANK(OneWayCredit, "how much may still be sent one way to a peer, in order; held until the link has it")       \
    RANK(OneWayDebt, "how much a peer has sent one way that is not acknowledged")                                  \
    RANK(Peer, "the session with one peer, and what waits for it")                                                 \
    RANK(ClientChannels, "the open channels to one peer")                                                          \
    RANK(RemoteProxy, "the death recipients of one object; held while they become notices or are taken back")      \
    RANK(DeathNotices, "the notices of deaths that wait, and those that run")                                      \
    RANK(OneWayQueues, "the one-way requests that wait, for each object")                                          \
    RANK(ServerChannels, "the channels that are served")                                                           \
    RANK(LinkOut, "what a link has not sent yet")                                                                  \
    RANK(Reactor, "the watched descriptors")                                                                       \
    RANK(ObjectTable, "the objects that have left the process, and their holders")                                 \
    RANK(ConnectionCounts, "the number of connections, for each user")                                             \
    RANK(ByteBudget, "the bytes that are held for each process and each user, and who waits for room")             \
    RANK(WorkerTasks, "the tasks that wait for a worker")                                                          \
    RANK(ProcessLife, "the opening of descriptors, for one system call: no fork may come in between")              \
    RANK(PeerLines, "how many lines other processes have caused; held while it is told how many were left out")    \
    RANK(LogSink, "the lines of a sink; code logs under any of the above")

namespace VEXA {

#define VEXA_LOCK_RANK(name, guards) name,
enum class LockRank : uint16_t { VEXA_LOCK_RANKS(VEXA_LOCK_RANK) };
#undef VEXA_LOCK_RANK

// Release builds, and those of the platform's users, store the ranks only.
#ifdef VEXA_CHECK_LOCK_ORDER
inline constexpr bool kChecksLockOrder = true;
#else
inline constexpr bool kChecksLockOrder = false;
#endif

enum class LockStep { TAKE, TAKE_AT_ONCE, RELEASE };

// Notes for the calling thread what it is about to do with a mutex, or has done where it did not have to wait. TAKE out
// of order ends the process, with both names on standard error; TAKE_AT_ONCE may come in any order. A RELEASE without a
// TAKE changes nothing: code that does not check may have taken the mutex.
VEXA_EXPORT void NoteLock(LockRank rank, LockStep step);

}  // namespace VEXA
