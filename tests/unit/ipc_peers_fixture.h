// SPDX-License-Identifier: Apache-2.0
// Other processes as a transport meets them. The test writes what they say, and has the transport work step by step.
#pragma once

#include <sys/un.h>

#include "ipc_fixture.h"
#include "taken.h"

namespace VEXA::ipc {

using enum FrameKind;
inline constexpr ConnectionUse LINK = ConnectionUse::LINK;
inline constexpr ConnectionUse CHANNEL = ConnectionUse::CHANNEL;

class CountingStub : public IPCObjectStub {
public:
    int calls = 0;
    sptr<IRemoteObject> gives;
    int32_t OnRemoteRequest(uint32_t, MessageParcel&, MessageParcel& reply, MessageOption&) override
    {
        const int number = calls++;
        reply.WriteRemoteObject(sptr<IRemoteObject>(this));
        return reply.WriteRemoteObject(gives), number;
    }
};

inline std::string Frame(FrameKind kind, ObjectId target = 0, uint64_t extra = 0)
{
    return Bytes(MakeHeader(kind, target, extra));
}

inline std::string Hello(EndpointId sender, ConnectionUse use = LINK, ChannelKey key = {}, FrameKind kind = HELLO)
{
    return Bytes(MakeHello(kind, use, sender, key));
}

inline std::string OneWay(
    ObjectId target, const std::vector<ObjectEntry>& objects, FrameHeader header = MakeHeader(ONE_WAY))
{
    header.target = target;
    header.objects = static_cast<uint16_t>(objects.size());
    std::string frame = Bytes(header);
    for (const ObjectEntry& entry : objects) {
        frame += Bytes(entry);
    }
    return frame;
}

// Another process, as far as the transport can tell, whose frames the test writes.
struct Stranger {
    EndpointId id = RandomNumber();
    UniqueFd listener = ListenAt(EndpointPath(id));
    UniqueFd link;     // on which it has greeted
    ChannelKey key{};  // that the transport has issued to it
};

// A transport whose work is done step by step, on the test's thread.
class IpcPeers : public LoggedTest {
protected:
    IpcPeers() { EXPECT_TRUE(CreateRuntimeDirectory() && transport_.Start()); }
    ~IpcPeers() override
    {
        for (const auto& late : {0s, 11s}) {
            transport_.Loop().CutAll();
            transport_.Loop().Tick(Now() + late);
            Deal();
            transport_.Workers().RunTasks();
        }
        // The transport and its log take some.
        EXPECT_LT(test::liveBlocks - blocks_, 1000);
        EXPECT_LT(test::OpenDescriptors() - descriptors_, 20);
        EXPECT_EQ(transport_.Objects().Size(), 0U) << "all who held something are gone";
    }

    // Does what the reactor's thread does with all that has arrived.
    void Deal()
    {
        for (int turn = 0; turn < 100; ++turn) {
            transport_.Loop().Turn(false);
        }
    }
    void Deal(const UniqueFd& from, const std::string& bytes)
    {
        Write(from, bytes);
        Deal();
    }
    // A connection to the transport on which these bytes have arrived.
    UniqueFd Say(const std::string& bytes)
    {
        UniqueFd fd = ConnectTo(EndpointPath(transport_.Id()));
        Deal(fd, bytes);
        return fd;
    }
    // One whose session stands.
    Stranger Meet()
    {
        Stranger stranger;
        stranger.link = Say(Hello(stranger.id));
        Deal(stranger.link, Hello(stranger.id, LINK, {}, KEY));
        HelloFrame answer{};
        EXPECT_EQ(recv(stranger.link.Get(), &answer, sizeof(answer), MSG_DONTWAIT), ssize_t{sizeof(answer)});
        stranger.key = answer.body.key;
        return stranger;
    }

    static sockaddr_un AddressOf(EndpointId id)
    {
        sockaddr_un address{AF_UNIX, {}};
        EndpointPath(id).copy(address.sun_path, sizeof(address.sun_path) - 1);
        return address;
    }
    // The kernel takes it for a connection of the process that has made it; a listener is whose it was last.
    bool RefusesFromElsewhere(const std::string& bytes, int listener = -1)
    {
        sockaddr_un address = AddressOf(transport_.Id());
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto inChild = [&] {
            listen(listener, 1);
            return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        };
        EXPECT_EQ(InChild(inChild), 0);
        const UniqueFd connection = UniqueFd::Make([&] { return fd; });
        Deal(connection, bytes);
        return HasEnded(connection);
    }
    static UniqueFd ListenElsewhere(const std::string& path, uid_t user)
    {
        UniqueFd listener = ListenAt(path);
        const int shared = dup(listener.Get());  // a child closes those that the transport knows
        EXPECT_EQ(InChild([&] { return setuid(user) + listen(shared, 1); }), 0);
        close(shared);
        return listener;
    }
    static bool IsConnectedToAndHearsNothing(const UniqueFd& listener)
    {
        const UniqueFd connection = AcceptFrom(listener);
        return connection && Heard(connection) == "END";
    }
    static int32_t Send(const sptr<IRemoteObject>& to, const std::vector<sptr<IRemoteObject>>& objects)
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option(MessageOption::TF_SYNC, 1);
        for (const sptr<IRemoteObject>& object : objects) {
            data.WriteRemoteObject(object);
        }
        return to->SendRequest(1, data, reply, option);
    }

    // A transport is never destroyed.
    static Transport& Make()
    {
        static const test::TestRuntime runtime;
        static auto& all = *new std::vector<std::unique_ptr<Transport>>;
        return *all.emplace_back(std::make_unique<Transport>(&StartNone));
    }
    Transport& transport_ = Make();
    PeerDirectory& peers_ = transport_.Peers();
    const ptrdiff_t blocks_ = test::liveBlocks;
    const ptrdiff_t descriptors_ = test::OpenDescriptors();
};

}  // namespace VEXA::ipc
