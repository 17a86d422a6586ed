// SPDX-License-Identifier: Apache-2.0
// The limits of the manager and of its clients.
#pragma once

#include <chrono>
#include <cstddef>

namespace VEXA::samgr {

// Seconds a client waits for the manager's answer to a request. The manager answers without waiting for a program.
inline constexpr int kManagerWaitSeconds = 8;
// How long an asynchronous load asks again for a manager that does not know of a death yet.
inline constexpr std::chrono::milliseconds kAsyncLoadTime = std::chrono::seconds(5);
// How long the process of a service may take to answer its client's greeting. Then it is taken for dead.
inline constexpr std::chrono::milliseconds kGreetTime = std::chrono::seconds(1);
// How often a thread in a synchronous load looks whether the manager lives: it may be the thread that hears of deaths.
inline constexpr std::chrono::milliseconds kLoadSlice = std::chrono::milliseconds(50);
// Pause before the manager is asked again for a dead service: it hears of a death a moment later. Each pause doubles.
inline constexpr std::chrono::milliseconds kFirstPause = std::chrono::milliseconds(1);
// The longest of these pauses, so that a client gets the next instance soon after its start.
inline constexpr std::chrono::milliseconds kLongestPause = std::chrono::milliseconds(20);
// Attempts to tell a new manager of a service: the first may reach the old manager, whose end is not known yet.
inline constexpr int kTellAttempts = 20;
// Descriptors that a process asks for when it registers a service: half of them are the connections of its users.
inline constexpr size_t kMostDescriptors = 16384;
// Pause between these attempts.
inline constexpr std::chrono::milliseconds kTellPause = std::chrono::milliseconds(10);

// Loads of one service that wait for its start. One more is refused as busy, to bound the manager's memory.
inline constexpr size_t kMaxWaitingLoads = 1024;
// How long a manager that follows another one starts nothing: living services register with it meanwhile.
inline constexpr std::chrono::milliseconds kReturnTime = std::chrono::milliseconds(200);
// How long programs may take to end after the SIGTERM of an orderly stop; SIGKILL follows.
inline constexpr std::chrono::milliseconds kStopTime = std::chrono::seconds(2);
// How long the manager then waits for killed programs, which the kernel may be unable to end.
inline constexpr std::chrono::milliseconds kKillTime = std::chrono::seconds(1);
// An operation that has failed for want of memory or descriptors is tried again after so long.
inline constexpr std::chrono::milliseconds kRetryPause = std::chrono::milliseconds(10);
// A profile that can't be opened for that reason is tried so often, each time after a longer pause.
inline constexpr int kMostTries = 10;

// A program that fails sooner after its start has crashed at once: a quick death.
inline constexpr std::chrono::milliseconds kQuickLife = std::chrono::seconds(1);
// Quick deaths in a row until the next start is delayed.
inline constexpr size_t kFreeDeaths = 5;
// The first delay, from the last death on. Each further quick death doubles it.
inline constexpr std::chrono::milliseconds kFirstDelay = std::chrono::milliseconds(100);
// The longest delay. It leaves an answer to callers that wait as long as an asynchronous load.
inline constexpr std::chrono::milliseconds kMaxDelay = std::chrono::milliseconds(3200);
// So long without a quick death ends the row.
inline constexpr std::chrono::milliseconds kForgetDeaths = std::chrono::seconds(10);

// Bytes of a profile. A larger file is left out.
inline constexpr size_t kMaxProfileBytes = size_t{64} * 1024;
// Bytes of an entry in the system's database of users and groups. A group with more members is not known.
inline constexpr size_t kMaxEntryBytes = size_t{1024} * 1024;
// How long a program may take to register, unless its profile says otherwise.
inline constexpr std::chrono::milliseconds kStartTimeout = std::chrono::seconds(5);
// The longest time that a profile may say, because its callers must hear of a program that hangs.
inline constexpr std::chrono::seconds kMaxStartTimeout = std::chrono::seconds(300);

// Bytes of a line of a program's output in the log. A longer one continues as another line.
inline constexpr size_t kMaxOutputLine = 1000;
// Bytes of a program's last line in the reason of its failure, so that a reason stays short.
inline constexpr size_t kMaxLastLine = 200;
// Reads of output after a program's end, together a full pipe: what the program has started may write on without end.
inline constexpr int kLastReads = 16;

}  // namespace VEXA::samgr
