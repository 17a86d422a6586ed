// SPDX-License-Identifier: Apache-2.0
// Every limit and every time of the transport, with its unit and its reason. docs/wire-format.md shows them as a table.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace VEXA::ipc {

// One-way requests under way from one process to another: sent or kept for it, and not known to be done there.
inline constexpr uint32_t kMaxQueuedOneWayFrames = 1024;
// Bytes of data in those requests: one of the largest possible size fits.
inline constexpr uint64_t kMaxQueuedOneWayBytes = uint64_t{16} * 1024 * 1024;
// Bytes that every one-way request takes of the receiver's window besides its data: about the memory it needs in a
// queue.
inline constexpr uint64_t kFrameCost = 1024;
// The window of a session at first, for which nothing is charged. It is never smaller.
inline constexpr uint64_t kFirstWindow = uint64_t{64} * 1024;
// Bytes of data in the one-way requests of a process that are still carried out, in order, when it has died.
inline constexpr uint64_t kMostLastWords = uint64_t{64} * 1024;
// Requests that the receiver has done before it tells the sender, unless the queue is empty or nearly full.
inline constexpr uint64_t kGatheredOneWayAcks = 64;
// References given back by one RELEASE; a proxy that has more sends several.
inline constexpr uint64_t kMostReleased = 4294967295;
// Grants that their giver can still take back. It does so within a request's time, or never.
inline constexpr size_t kMostGrants = 1024;
// Things that a peer may get wrong at once; it earns one more each second. Each costs this process more than the peer.
inline constexpr int kMostRefusals = 64;
// Objects in one one-way request whose processes can't be reached. More of them count as one thing got wrong.
inline constexpr size_t kMostUnreachable = 4;
// Endpoints remembered as dead. What is still on its way from a dead process arrives within moments.
inline constexpr size_t kMostDead = 4096;

// Bytes of one process that this one holds: frames on channels that are larger than kGrowthStep, from their headers
// on until they are dealt with, replies that wait to be read, and windows for one-way requests beyond the first. Four
// of the largest frames fit.
inline constexpr uint64_t kMostBytesOfProcess = uint64_t{64} * 1024 * 1024;
// The same of all processes of one user: no one of them can take it all.
inline constexpr uint64_t kMostBytesOfUser = uint64_t{256} * 1024 * 1024;

// Connections of one user to this process, links and channels together.
inline constexpr size_t kMaxConnectionsPerUser = 4096;
// Percent of this process's descriptors that connections may take.
inline constexpr size_t kConnectionShare = 75;
// Percent of this process's descriptors that the connections of one user may take: the other users keep some.
inline constexpr size_t kUserShare = 50;
// Percent of its user's connections that one process may have, but at least one.
inline constexpr size_t kProcessShare = 50;
// Percent of any of these from which on connections are few: the other processes are asked to close idle channels.
inline constexpr size_t kFewFrom = 87;
// An accepted connection that has not greeted for so long is closed.
inline constexpr std::chrono::milliseconds kGreetLimit = std::chrono::seconds(5);
// A process without an endpoint is taken to have left after so long: a runtime directory that was removed is made
// again within a tick or two.
inline constexpr std::chrono::milliseconds kMissingLimit = std::chrono::seconds(5);
// Bytes that a peer may leave unread on a link, or may have waiting for its session, before it is given up. One-way
// requests are bounded by themselves, so this is room for them and for as much book-keeping.
inline constexpr size_t kMostUnread = size_t{32} * 1024 * 1024;
// Frames read from one link before the others have their turn.
inline constexpr size_t kFairShare = 64;
// Bytes asked of the kernel for a new frame. Most frames are smaller, and come whole.
inline constexpr size_t kFirstRead = 512;
// Bytes made room for at first where a frame is larger. The room grows with what has really arrived.
inline constexpr size_t kGrowthStep = 4096;

// Bytes of a parcel's block that the process keeps, one at a time, for the next parcel that needs so much. Shorter ones
// cost little to have anew.
inline constexpr size_t kLeastKeptBlock = size_t{32} * 1024;
// Bytes of a parcel's block beyond which it is given back at once.
inline constexpr size_t kMostKeptBlock = size_t{2} * 1024 * 1024;

// A frame on a channel that takes longer from its first byte to its last, or a reply that is not read for so long,
// costs the connection.
inline constexpr std::chrono::milliseconds kStallLimit = std::chrono::seconds(8);
// A worker waits so long for the next request of the channel that it has served. A caller that pauses for longer has
// let its processor sleep by then.
inline constexpr std::chrono::milliseconds kFollowLimit = std::chrono::milliseconds(20);
// Channels to one process that are kept open while nobody uses them.
inline constexpr size_t kMostIdle = 16;
// The wait for a reply may end so much later than the deadline: the socket's own time-out is set anew only beyond that.
inline constexpr std::chrono::milliseconds kReceiveSlack = std::chrono::milliseconds(50);
// The wait for room in another process's backlog, and for the greeting of a new channel to be taken.
inline constexpr std::chrono::milliseconds kConnectWait = std::chrono::milliseconds(1000);
// A request whose channel has ended waits so long for the link to end too, which it does where the process has died:
// the kernel closes its sockets one after the other.
inline constexpr std::chrono::milliseconds kDeathLag = std::chrono::milliseconds(500);
// A transfer for which the kernel has no memory pauses so long before it is tried again, and so often at once.
inline constexpr std::chrono::milliseconds kMemoryPause = std::chrono::milliseconds(1);
inline constexpr int kMemoryTries = 3;
// The wait for a grant to be with the kernel, before the object that it is for may travel on.
inline constexpr std::chrono::milliseconds kFlushWait = std::chrono::milliseconds(1000);
// The wait for all links to be read, before a frame is refused for want of a grant.
inline constexpr std::chrono::milliseconds kSettleWait = std::chrono::milliseconds(1000);
// The wait for the publisher of the context object to greet.
inline constexpr std::chrono::milliseconds kGreetingWait = std::chrono::milliseconds(1000);
// The wait for a greeting's outcome once its answer is being read. No wait stands between the two, so this runs out
// only on a machine that does not work.
inline constexpr std::chrono::milliseconds kClaimLimit = std::chrono::seconds(10);

// Log lines that one process causes in a second; more are counted.
inline constexpr uint32_t kMostLinesOfProcess = 5;
// The same of all processes of one user.
inline constexpr uint32_t kMostLinesOfUser = 20;

// Threads that carry out requests, unless the process sets another number.
inline constexpr size_t kDefaultThreads = 16;
// All threads that carry out requests, with the ones that stand in for threads that wait.
inline constexpr size_t kMostThreads = 256;
// Whatever fails for want of memory, or of the kernel's resources, is tried again after so long.
inline constexpr std::chrono::milliseconds kShortagePause = std::chrono::milliseconds(10);
// The reactor looks at time limits so often while anything may run out.
inline constexpr std::chrono::milliseconds kTickPeriod = std::chrono::milliseconds(1000);
// A death recipient that takes longer holds up no other: with seven of them the others still have more than half of the
// 100 ms in which a death is to be told.
inline constexpr std::chrono::milliseconds kPatience = std::chrono::milliseconds(5);
// Threads that run death recipients; with all of them held up the rest waits.
inline constexpr size_t kMostDeathThreads = 8;
// A thread for death recipients that is not the last one ends after so long without work.
inline constexpr std::chrono::milliseconds kDeathThreadIdle = std::chrono::minutes(1);

}  // namespace VEXA::ipc
