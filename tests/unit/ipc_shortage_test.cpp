// SPDX-License-Identifier: Apache-2.0
// Each scene is played again and again, and each time another step of the transport fails, once: an allocation, or a
// system call in one of the ways in which it can fail. What comes of the scene is the same as without.
#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>

#include <new>

#include "ipc_peers_fixture.h"
#include "support/test_object.h"

namespace {

// While armed, lets the call of that name fail that comes after `left` others.
struct Fault {
    const char* call = "";
    int error = 0;  // or kShort: only a part is moved
    int left = 0;
    bool isArmed = false;
};
constexpr int kShort = 0;
Fault fault;

bool Fails(std::string_view call)
{
    if (!fault.isArmed || call != fault.call || fault.left-- != 0) {
        return false;
    }
    errno = fault.error;
    return true;
}

// A greeting is never cut: the kernel has room for it on a connection that is new.
bool Shorten(size_t& size)
{
    size = std::min<size_t>(size, 65);
    return fault.error == kShort;
}

}  // namespace

// The linker puts the second in the place of operator new.
void* RealNew(size_t size) __asm__("__real__Znwm");
void* New(size_t size) __asm__("__wrap__Znwm");
void* New(size_t size)
{
    return Fails("new") ? throw std::bad_alloc() : RealNew(size);
}

#define INTERPOSE(result, name, parameters, arguments, when)                                 \
    extern "C" __attribute__((visibility("default"))) result name parameters                 \
    {                                                                                        \
        static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
        return Fails(#name) && (when) ? -1 : next arguments;                                 \
    }
INTERPOSE(int, socket, (int domain, int type, int protocol), (domain, type, protocol), true)
INTERPOSE(int, connect, (int fd, const sockaddr* to, socklen_t size), (fd, to, size), true)
INTERPOSE(int, accept4, (int fd, sockaddr* from, socklen_t* size, int flags), (fd, from, size, flags), true)
INTERPOSE(int, epoll_wait, (int set, epoll_event* events, int most, int wait), (set, events, most, wait), true)
INTERPOSE(int, epoll_ctl, (int set, int act, int fd, epoll_event* event), (set, act, fd, event), act == EPOLL_CTL_ADD)
INTERPOSE(int, poll, (pollfd * fds, nfds_t count, int wait), (fds, count, wait), true)
INTERPOSE(ssize_t, send, (int fd, const void* bytes, size_t size, int flags), (fd, bytes, size, flags), !Shorten(size))
INTERPOSE(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags), !Shorten(size))

namespace VEXA::ipc {
namespace {

// Has memory itself.
class Sound : public CountingStub {
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        const bool wasArmed = std::exchange(fault.isArmed, false);
        const int32_t result = CountingStub::OnRemoteRequest(code, data, reply, option);
        fault.isArmed = wasArmed;
        return result;
    }
};

class IpcShortage : public IpcPeers {
protected:
    IpcShortage() { SetLogSink(nullptr); }  // the other would take part in the shortage

    // All that the transport has to do. What lasts no longer than the call is not left to a tick.
    void Work()
    {
        const bool hasTicks = fault.error != EINTR && fault.error != ECONNABORTED;
        fault.isArmed = true;
        for (int turn = 0; turn < 24; ++turn) {
            transport_.Loop().Turn(false);
            RunForeign("a task", [&] { transport_.Workers().RunTasks(); });
            RunForeign("a tick", [&] { hasTicks&& turn % 10 == 5 ? transport_.Loop().Tick(Now()) : void(); });
        }
        fault.isArmed = false;
    }
    // How much is heard when this has been said.
    std::string Said(const UniqueFd& to, const std::string& bytes = "")
    {
        send(to.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);  // it may have ended
        Work();
        const std::string heard = Heard(to);
        return std::to_string(heard.size()) + (heard.ends_with("END") ? " END " : " ");
    }
    bool Holds(ObjectId id, const Stranger& who) { return transport_.Objects().Find(id, who.id) != nullptr; }

    EndpointId low_ = 0;
    EndpointId high_ = 0;
    OneWayQueues oneWays_{transport_.Workers()};
    const Session::Parts parts_{peers_, oneWays_, nullptr};
};

TEST_F(IpcShortage, WhatFailsOnceIsDoneAllTheSame)
{
    // In each there is a process that holds an object.
    using Scene = std::function<void(
        std::ostream & out, Stranger & other, const sptr<Peer>& peer, CountingStub& object, ObjectId id)>;
    const std::pair<const char*, Scene> scenes[] = {
        {"greetings",
            [&](std::ostream& out, auto&, auto&, auto&, ObjectId) {
                for (const EndpointId id : {++low_, --high_}) {
                    const Stranger other{id, ListenAt(EndpointPath(id)), {}, {}};
                    const sptr<Peer> peer = peers_.PeerAt(id);
                    peers_.AskToCloseIdle();
                    const UniqueFd own = AcceptFrom(other.listener);
                    UniqueFd others;
                    std::string said = "3 END ";
                    // A connection that could not be taken is made again, as every process does.
                    for (int tries = 0; tries < 2 && said == "3 END "; ++tries) {
                        others = ConnectTo(EndpointPath(transport_.Id()));
                        said = Said(others, Hello(id));
                    }
                    out << said << Said(own, id == low_ ? Hello(id, LINK, {1, 2}, HELLO_REPLY) : "")
                        << Said(others, id == low_ ? "" : Hello(id, LINK, {1, 2}, KEY)) << peer->Stands();
                }
            }},
        {"the manager's answer",
            [&](std::ostream& out, auto& other, auto&, auto&, ObjectId) {
                const Stranger manager;
                std::string said = "3 END ";
                // Without descriptors the transport can't see whose the endpoint is, and asks the manager once more.
                for (int tries = fault.call == std::string("new") ? 1 : 0; tries < 2 && said == "3 END "; ++tries) {
                    SocketPair ends;
                    const auto greeting = std::make_shared<Greeting>();
                    const Credentials who = CredentialsOf(ends.far);
                    transport_.Loop().Add(sptr<Session>::MakeSptr(
                        parts_, Connection{std::move(ends.near), who, nullptr}, nullptr, greeting));
                    said = Said(ends.far, Hello(manager.id, LINK, {1, 2}, HELLO_REPLY));
                    EXPECT_EQ(greeting->peer.get_future().get() != nullptr, said != "3 END ");
                }
                out << said << Said(other.link);
            }},
        {"an endpoint that was removed",
            [&](std::ostream& out, auto&, auto&, auto&, ObjectId) {
                unlink(EndpointPath(transport_.Id()).c_str());
                for (int look = 0; look < 2; ++look) {
                    transport_.Workers().Post([&] { transport_.Watch().Look(); });
                    Work();
                }
                out << Said(Meet().link);
            }},
        {"a one-way request",
            [&](std::ostream& out, auto& other, auto&, auto& object, ObjectId id) {
                const Stranger owner = Meet();
                const Stranger unknown;
                const std::vector<ObjectEntry> all{
                    {other.id, 7}, {owner.id, 8}, {unknown.id, 9}, {transport_.Id(), id}};
                out << Said(other.link, OneWay(id, all)) << Said(owner.link) << object.calls
                    << peers_.KnownPeer(unknown.id)->IsConnected();
            }},
        {"grants",
            [&](std::ostream& out, auto& giver, auto&, auto& object, ObjectId id) {
                const Stranger holder = Meet();
                const Stranger unknown;
                const std::string grant = Frame(GRANT, id, holder.id);
                const std::string release = Frame(RELEASE, id, 1);
                for (const auto& [who, frame] :
                    {std::pair(&holder, release), {&giver, grant}, {&giver, Frame(UNGRANT, id, holder.id)},
                        {&giver, grant}, {&giver, grant}, {&holder, release}, {&giver, Frame(GRANT, id, unknown.id)}}) {
                    out << Said(who->link, frame) << Holds(id, holder) << Holds(id, unknown) << ' ';
                }
                Write(holder.link, OneWay(id, {}));  // before the grant has been read
                out << Said(giver.link, grant + release) << object.calls << Holds(id, giver);
            }},
        {"a death",
            [&](std::ostream& out, auto& other, auto& peer, auto& object, ObjectId id) {
                const sptr<IRemoteObject> objects[] = {peer->Object(7), peer->Object(8)};
                const sptr<test::CountingRecipient> recipient(new test::CountingRecipient);
                objects[0]->AddDeathRecipient(recipient);
                objects[1]->AddDeathRecipient(recipient);
                Write(other.link, Times(3, OneWay(id, {{other.id, 9}})) + "no frame");
                shutdown(other.link.Get(), SHUT_WR);
                Work();
                while (transport_.Deaths().TellOne()) {
                }
                out << recipient->count << object.calls << transport_.Objects().Size() << peers_.HasDied(other.id);
            }},
        {"windows",
            [&](std::ostream& out, auto& other, auto& peer, auto& object, ObjectId id) {
                out << Said(other.link, Frame(ONE_WAY_WANT, 0, 1'000'000))
                    << Said(other.link, FrameOf(MakeHeader(ONE_WAY, id), 100'000)) << object.calls;
                const std::string large = FrameOf(ONE_WAY, 100'000);
                peer->Credit().SendOneWay(large.data(), large.size(), 100'000);
                // References that it gives back wait behind the other request.
                out << Said(other.link, OneWay(id, {{other.id, 7}}))
                    << Said(other.link, Frame(ONE_WAY_WINDOW, 0, 1'000'000))
                    << Said(other.link, Frame(ONE_WAY_ACK, 1, 100'000)) << peer->Credit().IsWhole();
            }},
        {"a channel",
            [&](std::ostream& out, auto& other, auto&, auto& object, ObjectId id) {
                const std::string request = OneWay(id, {{other.id, 7}, {transport_.Id(), id}}, MakeHeader(REQUEST));
                object.gives = new IPCObjectStub;
                const std::string hello = Hello(other.id, CHANNEL, other.key);
                const UniqueFd channel = Say(hello.substr(0, 4));
                // What ends it is read by another worker where the first one can't wait for it.
                const std::string end(fault.call == std::string("poll") ? 0 : 32, 'x');
                const std::string said =
                    Said(channel, hello.substr(4) + request + Frame(REPLY_ACK) +
                                      FrameOf(MakeHeader(REQUEST, id), 100'000) + Frame(REPLY_ACK) + end);
                // The kernel may have no room to watch it: it is closed behind its replies.
                out << (fault.call == std::string("epoll_ctl") ? "" : said) << object.calls
                    << Said(other.link, Frame(RELEASE, id, 2)) << Holds(id, other)
                    << Said(other.link, Frame(RELEASE, id, 1)) << Holds(id, other);
            }},
    };
    const std::pair<const char*, std::vector<int>> faults[] = {{"new", {ENOMEM}}, {"socket", {EMFILE, ENOMEM}},
        {"connect", {EINTR, EAGAIN}}, {"accept4", {EINTR, ECONNABORTED, EMFILE, ENOMEM}}, {"epoll_wait", {EINTR}},
        {"poll", {EINTR, ENOMEM}}, {"epoll_ctl", {ENOMEM}}, {"send", {EINTR, ENOBUFS, kShort}},
        {"recv", {EINTR, ENOMEM, kShort}}};
    for (const auto& [name, play] : scenes) {
        for (const auto& [call, errors] : faults) {
            std::string expected;
            for (const int error : errors) {
                // At first nothing fails, and at the end nothing is left to fail.
                for (int n = -1; n < 0 || fault.left < 0; ++n) {
                    fault = Fault{call, error, n, false};
                    std::ostringstream out;
                    Stranger other = Meet();
                    const sptr<CountingStub> object(new Sound);
                    play(out, other, peers_.KnownPeer(other.id), *object, peers_.AddHolder(object, other.id));
                    expected = expected.empty() ? out.str() : expected;
                    EXPECT_EQ(out.str(), expected) << name << ": " << call << " " << n << ", " << error;
                    other.link.Reset();
                    Deal();
                }
            }
        }
    }
}

}  // namespace
}  // namespace VEXA::ipc
