// SPDX-License-Identifier: Apache-2.0
// Processes that lie, stall or flood: they lose their connection, and everybody else is served.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <random>

#include "remote_proxy.h"
#include "runtime_paths.h"
#include "socket.h"
#include "support/peer_fixture.h"
#include "wire.h"

namespace VEXA::test {
namespace {

class IpcBadPeers : public PeerTest {
protected:
    void Served() { EXPECT_EQ(Call(hub_, ADD_ONE).Int(1).Answer(), 2); }

    // A connection to the hub on which these bytes have been sent.
    static ipc::UniqueFd Say(const void* bytes, size_t size)
    {
        ipc::UniqueFd socket = ipc::ConnectTo(ipc::ContextSocketPath());
        EXPECT_TRUE(socket);
        size_t moved = 0;
        ipc::SendNow(socket.Get(), bytes, size, moved);
        return socket;
    }
    static bool EndsWithin(const ipc::UniqueFd& socket, std::chrono::milliseconds limit)
    {
        return Eventually(
            [&] {
                char bytes[1024];
                size_t moved = 0;
                const ipc::Transfer result = ipc::ReceiveNow(socket.Get(), bytes, sizeof(bytes), moved);
                return result == ipc::Transfer::END || result == ipc::Transfer::FAILED;
            },
            limit);
    }
};

struct Greeting {
    ipc::FrameHeader header;
    ipc::HelloBody body;
};

Greeting Hello(ipc::ConnectionUse use, ipc::EndpointId sender, ipc::ChannelKey key = {})
{
    Greeting greeting{ipc::MakeHeader(ipc::FrameKind::HELLO), {ipc::kWireVersion, use, sender, key}};
    greeting.header.bytes = sizeof(greeting.body);
    return greeting;
}

TEST_F(IpcBadPeers, FalseFirstFramesEndTheConnection)
{
    using ipc::ConnectionUse;
    const ipc::EndpointId known = ipc::IpcProcess::Get().Start()->Id();
    const Greeting link = Hello(ConnectionUse::LINK, known);
    Greeting request = link;
    request.header.kind = ipc::FrameKind::REQUEST;
    Greeting unsound = link;
    unsound.header.bytes = IPC_MAX_PARCEL_BYTES + 4;
    Greeting newer = link;
    ++newer.body.version;
    const std::pair<const char*, Greeting> cases[] = {
        {"claims an endpoint that nobody has", Hello(ConnectionUse::LINK, 0x1234)},
        {"a channel with a key that was not issued", Hello(ConnectionUse::CHANNEL, known, {1, 2})},
        {"unknown use", Hello(ConnectionUse(7), known)},
        {"a request before any greeting", request},
        {"too large", unsound},
        {"another version", newer},
    };
    for (const auto& [name, greeting] : cases) {
        EXPECT_TRUE(EndsWithin(Say(&greeting, sizeof(greeting)), std::chrono::seconds(3))) << name;
    }
    Served();
}

// A process that leaves removes its endpoint first; its name is free while it still is somebody.
TEST_F(IpcBadPeers, AnEndpointIsNotTakenOverWhileItsProcessLives)
{
    ChildProcess process;
    const sptr<IRemoteObject> node = Start("node", process);
    ASSERT_EQ(Call(node, ADD_ONE).Int(1).Answer(), 2);
    const ipc::EndpointId id = static_cast<ipc::RemoteProxy&>(*node).Owner()->Id();
    unlink(ipc::EndpointPath(id).c_str());
    const ipc::UniqueFd listener = ipc::ListenAt(ipc::EndpointPath(id));
    ASSERT_TRUE(listener);
    const Greeting link = Hello(ipc::ConnectionUse::LINK, id);
    EXPECT_TRUE(EndsWithin(Say(&link, sizeof(link)), std::chrono::seconds(3)));
    EXPECT_EQ(Call(node, ADD_ONE).Int(1).Answer(), 2);
}

TEST_F(IpcBadPeers, GarbageOnThreeHundredConnectionsDisturbsNobody)
{
    std::mt19937 random(20);
    for (int i = 0; i < 300; ++i) {
        std::vector<uint32_t> garbage(1 + random() % 2000);
        std::generate(garbage.begin(), garbage.end(), std::ref(random));
        Say(garbage.data(), garbage.size() * 4);
    }
    Served();
}

// Connections that say nothing, or half of something, hold no thread; and the newest are refused when one user has half
// of the descriptors, while those that are there go on being served.
TEST_F(IpcBadPeers, IdleConnectionsAreBoundedAndTimeOut)
{
    rlimit descriptors{};
    ASSERT_EQ(prlimit(hubProcess_.Pid(), RLIMIT_NOFILE, nullptr, &descriptors), 0);
    descriptors.rlim_cur = 300;
    ASSERT_EQ(prlimit(hubProcess_.Pid(), RLIMIT_NOFILE, &descriptors, nullptr), 0);
    const Greeting half = Hello(ipc::ConnectionUse::LINK, 1);
    std::vector<ipc::UniqueFd> silent;
    for (size_t i = 0; i < 170; ++i) {
        silent.push_back(Say(&half, 1 + i % 60));
    }
    Served();
    EXPECT_TRUE(EndsWithin(silent[150], std::chrono::seconds(2)));
    EXPECT_FALSE(EndsWithin(silent[140], std::chrono::milliseconds(0)));
    EXPECT_TRUE(EndsWithin(silent.front(), std::chrono::seconds(12)))
        << "a greeting that does not come is not waited for";
    Served();
}

// Each by a process of its own, as far as the hub can tell.
TEST_F(IpcBadPeers, WhatCostsMoreThanItTakesIsNotTakenForLong)
{
    const ipc::EndpointId hub = static_cast<ipc::RemoteProxy&>(*hub_).Owner()->Id();
    struct Frame {
        ipc::FrameHeader header;
        ipc::ObjectEntry entries[5];
    };
    Frame table{ipc::MakeHeader(ipc::FrameKind::ONE_WAY), {{hub, 999}}};
    table.header.objects = 1;
    Frame strangers{ipc::MakeHeader(ipc::FrameKind::ONE_WAY), {{11, 1}, {12, 1}, {13, 1}, {14, 1}, {15, 1}}};
    strangers.header.objects = 5;
    Frame announced{ipc::MakeHeader(ipc::FrameKind::ONE_WAY), {}};
    announced.header.bytes = IPC_MAX_PARCEL_BYTES / 4 * 3;
    const struct {
        const char* name;
        Frame frame;
        size_t links;
        size_t frames;  // on each
    } cases[] = {
        {"grants of what it does not hold", {ipc::MakeHeader(ipc::FrameKind::GRANT, 999, 1), {}}, 1, 65},
        {"objects of the receiver that it does not hold", table, 1, 65},
        {"objects of processes that there are not", strangers, 1, 65},
        {"parts of more requests than may wait", announced, 2, 1},
    };
    for (const auto& [name, frame, links, frames] : cases) {
        const ipc::EndpointId self = ipc::RandomNumber();
        const ipc::UniqueFd listener = ipc::ListenAt(ipc::EndpointPath(self));
        const Greeting hello = Hello(ipc::ConnectionUse::LINK, self);
        const size_t size = ipc::kHeaderBytes + frame.header.objects * sizeof(ipc::ObjectEntry);
        std::vector<ipc::UniqueFd> sockets;
        size_t moved = 0;
        for (size_t link = 0; link < links; ++link) {
            sockets.push_back(Say(&hello, sizeof(hello)));
            for (size_t count = 0; count < frames; ++count) {
                ipc::SendNow(sockets.back().Get(), &frame, size, moved);
            }
        }
        EXPECT_TRUE(EndsWithin(sockets.back(), std::chrono::seconds(3))) << name;
    }
    Served();
}

// As a reply is that was made while its caller died.
TEST_F(IpcBadPeers, WhatIsHandedToADeadProcessIsNotKept)
{
    constexpr ipc::EndpointId kGone = 0x1234;
    ipc::ObjectTable& objects = ipc::IpcProcess::Get().Start()->Objects();
    const size_t before = objects.Size();
    const sptr<IRemoteObject> mine(new TestObject);
    ipc::IpcProcess::Get().Start()->Peers().AddHolder(mine, kGone);
    EXPECT_EQ(objects.Size(), before);
}

TEST_F(IpcBadPeers, StoppedProcessHoldsUpNobody)
{
    ChildProcess process;
    const sptr<IRemoteObject> node = Start("node", process);
    const sptr<IRemoteObject> mine(new TestObject);
    ASSERT_EQ(Call(node, KEEP).Object(mine).Send(), 0);
    ASSERT_TRUE(process.Stop());
    EXPECT_EQ(Call(node, ADD_ONE).Int(1).Wait(1).Send(), IPC_TIMED_OUT);
    // One-way requests to it pile up to the bound, and no further.
    int32_t queued = 0;
    while (Call(node, NOTE).Int(queued).OneWay().Send() == 0 && queued < 5000) {
        ++queued;
    }
    EXPECT_EQ(queued, 1024);
    Served();
    process.Signal(SIGCONT);
    EXPECT_EQ(Call(node, ADD_ONE).Int(6).Answer(), 7) << "the late answer to the first is nobody's";
    EXPECT_TRUE(Eventually([&] { return Call(node, NOTES).Answer() == queued; }));
}

}  // namespace
}  // namespace VEXA::test
