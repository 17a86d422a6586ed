// SPDX-License-Identifier: Apache-2.0
// Processes that lie, stall or flood: they lose their connection, and everybody else is served.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <random>

#include "support/peer_fixture.h"
#include "transport/runtime_paths.h"
#include "transport/socket.h"
#include "transport/wire.h"

namespace VEXA::test {
namespace {

class IpcBadPeers : public PeerTest {
protected:
    void Served() { EXPECT_EQ(Call(hub_, ADD_ONE).Int(1).Answer(), 2); }

    static bool EndsWithin(const ipc::UniqueFd& socket, std::chrono::milliseconds limit)
    {
        return Eventually(
            [&] {
                char byte;
                size_t moved = 0;
                const ipc::Transfer result = ipc::ReceiveNow(socket.Get(), &byte, 1, moved);
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
    const ipc::EndpointId stranger = 0x1234;
    const ipc::EndpointId known = ipc::IpcProcess::Get().Id();
    std::vector<std::pair<const char*, Greeting>> cases;
    const auto add = [&](const char* name, const Greeting& base, void (*spoil)(Greeting&)) {
        cases.emplace_back(name, base);
        spoil(cases.back().second);
    };
    const Greeting link = Hello(ConnectionUse::LINK, known);
    add("claims an endpoint that nobody has", Hello(ConnectionUse::LINK, stranger), [](Greeting&) {});
    add("a channel with a key that was not issued", Hello(ConnectionUse::CHANNEL, known, {1, 2}), [](Greeting&) {});
    add("wrong magic", link, [](Greeting& greeting) { greeting.header.magic ^= 1; });
    add("unknown kind", link, [](Greeting& greeting) { greeting.header.kind = ipc::FrameKind(99); });
    add("a request before any greeting", link,
        [](Greeting& greeting) { greeting.header.kind = ipc::FrameKind::REQUEST; });
    add("too large", link, [](Greeting& greeting) { greeting.header.bytes = IPC_MAX_PARCEL_BYTES + 4; });
    add("length near the end of its type", link, [](Greeting& greeting) { greeting.header.bytes = UINT32_MAX - 3; });
    add("odd length", link, [](Greeting& greeting) { greeting.header.bytes = 33; });
    add("too many objects", link, [](Greeting& greeting) { greeting.header.objects = 257; });
    add("another version", link, [](Greeting& greeting) { ++greeting.body.version; });
    add("unknown use", link, [](Greeting& greeting) { greeting.body.use = ConnectionUse(7); });
    for (const auto& [name, greeting] : cases) {
        const ipc::UniqueFd socket = ipc::ConnectTo(ipc::ContextSocketPath());
        size_t moved = 0;
        ipc::SendNow(socket.Get(), &greeting, sizeof(greeting), moved);
        EXPECT_TRUE(EndsWithin(socket, std::chrono::seconds(3))) << name;
    }
    Served();
}

TEST_F(IpcBadPeers, GarbageOnThreeHundredConnectionsDisturbsNobody)
{
    std::mt19937 random(20);
    for (int i = 0; i < 300; ++i) {
        const ipc::UniqueFd socket = ipc::ConnectTo(ipc::ContextSocketPath());
        ASSERT_TRUE(socket);
        std::vector<uint32_t> garbage(1 + random() % 2000);
        for (uint32_t& word : garbage) {
            word = static_cast<uint32_t>(random());
        }
        size_t moved = 0;
        ipc::SendNow(socket.Get(), garbage.data(), garbage.size() * 4, moved);
        if (i % 10 == 0) {
            Served();
        }
    }
    Served();
}

// Connections that say nothing, or half of something, hold no thread; and the newest are refused when there are too
// many, while those that are there go on being served.
TEST_F(IpcBadPeers, IdleConnectionsAreBoundedAndTimeOut)
{
    std::vector<ipc::UniqueFd> silent;
    for (size_t i = 0; i < ipc::kMaxConnectionsPerUser + 20; ++i) {
        ipc::UniqueFd socket = ipc::ConnectTo(ipc::ContextSocketPath());
        ASSERT_TRUE(socket);
        const Greeting half = Hello(ipc::ConnectionUse::LINK, 1);
        size_t moved = 0;
        ipc::SendNow(socket.Get(), &half, 1 + i % 60, moved);
        silent.push_back(std::move(socket));
    }
    Served();
    EXPECT_TRUE(EndsWithin(silent.back(), std::chrono::seconds(2)));
    EXPECT_TRUE(EndsWithin(silent.front(), std::chrono::seconds(12)))
        << "a greeting that does not come is not waited for";
    Served();
}

TEST_F(IpcBadPeers, StoppedProcessHoldsUpNobody)
{
    ChildProcess process;
    const sptr<IRemoteObject> node = Start("node", process);
    const sptr<IRemoteObject> mine(new TestObject);
    ASSERT_EQ(Call(node, KEEP).Object(mine).Send(), 0);
    process.Stop();
    EXPECT_EQ(Call(node, ADD_ONE).Int(1).Wait(1).Send(), IPC_TIMED_OUT);
    // One-way requests to it pile up to the bound, and no further.
    int32_t queued = 0;
    while (Call(node, NOTE).Int(queued).OneWay().Send() == 0 && queued < 5000) {
        ++queued;
    }
    EXPECT_EQ(queued, 1024);
    Served();
    process.Signal(SIGCONT);
    EXPECT_TRUE(Eventually([&] { return Call(node, NOTES).Answer() == queued; }));
}

}  // namespace
}  // namespace VEXA::test
