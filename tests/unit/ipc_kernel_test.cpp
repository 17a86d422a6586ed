// SPDX-License-Identifier: Apache-2.0
// The seam to the kernel.
#include <sys/time.h>

#include "ipc_fixture.h"

namespace VEXA::ipc {
namespace {

// A process that was stopped finds an answer there, and its own time past.
TEST(SocketTest, WhatHasComeCountsAfterTheDeadline)
{
    const SocketPair ends(SOCK_SEQPACKET);
    Write(ends.far, "one");
    Write(ends.far, "two");
    const Deadline past = Now() - 1s;
    size_t moved = 0;
    char text[7] = {};
    EXPECT_EQ(ReceiveAtLeast(ends.near.Get(), text, 6, 6, past, moved), Transfer::DONE);
    EXPECT_STREQ(text, "onetwo");
    Write(ends.far, "end");
    EXPECT_EQ(ReceiveAtLeast(ends.near.Get(), text, 6, 6, past, moved), Transfer::WOULD_BLOCK);
}

TEST(SocketTest, SignalsDoNotProlongTheWaitForABacklog)
{
    const test::TempDir folder;
    const std::string path = folder.Path() + "/socket";
    const UniqueFd listener = ListenAt(path);
    ASSERT_EQ(listen(listener.Get(), 0), 0);
    const UniqueFd first = ConnectAtOnce(path);
    signal(SIGALRM, [](int) {});
    const itimerval often{{0, 300'000}, {0, 300'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const Deadline start = Now();
    EXPECT_FALSE(ConnectTo(path));
    EXPECT_LT(Now() - start, 3s);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
}

}  // namespace
}  // namespace VEXA::ipc
