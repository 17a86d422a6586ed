// SPDX-License-Identifier: Apache-2.0
// Tests of everything that another process may say: greetings, sessions, objects on their way, deaths.
#include <sys/resource.h>

#include "ipc_peers_fixture.h"
#include "peer_requests.h"
#include "support/test_object.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA::ipc {
namespace {

TEST_F(IpcPeers, AConnectionIsTakenByItsFirstFrame)
{
    const Stranger known = Meet();
    const Stranger unknown;
    const EndpointId dead = Meet().id;
    Deal();
    HelloFrame newer = MakeHello(HELLO, LINK, Stranger().id);
    newer.body.version = 3;
    const auto refusal = [&](Refusal reason) { return Bytes(MakeRefusal(reason, transport_.Id())) + "END"; };
    // The bytes that come, and how the answer ends; an empty end fits every answer.
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"a link", Hello(unknown.id), ""},
        {"a channel", Hello(known.id, CHANNEL, known.key), ""},
        {"a piece of a greeting", Hello(unknown.id).substr(0, 4), ""},
        {"another link", Hello(known.id), refusal(Refusal::STANDS)},
        {"a link of the dead", Hello(dead), refusal(Refusal::DEAD)},
        {"another version", Bytes(newer), refusal(Refusal::VERSION)},
        {"two greetings", Hello(unknown.id) + Hello(unknown.id), "END"},
        {"an endpoint that nobody has", Hello(0x1234), "END"},
        {"the transport's own endpoint", Hello(transport_.Id()), "END"},
        {"a channel with another key", Hello(known.id, CHANNEL, {known.key.high, known.key.low + 1}), "END"},
        {"or another half of it", Hello(known.id, CHANNEL, {known.key.high + 1, known.key.low}), "END"},
        {"a channel of an unknown process", Hello(0x1234, CHANNEL, known.key), "END"},
        {"an unknown use", Hello(known.id, ConnectionUse(7)), "END"},
        {"an answer that was not asked for", Hello(known.id, LINK, {}, HELLO_REPLY), "END"},
        {"a key before any greeting", Hello(known.id, LINK, {}, KEY), "END"},
        {"a request before any greeting", Frame(REQUEST), "END"},
        {"a release before any greeting", Frame(RELEASE), "END"},
        {"no frame", std::string(64, 'x'), "END"},
    };
    for (const auto& [name, bytes, end] : rows) {
        const std::string heard = Heard(Say(bytes));
        EXPECT_TRUE(heard.ends_with(end) && heard.ends_with("END") == !end.empty()) << name;
    }
    EXPECT_FALSE(HasEnded(known.link));
    const Stranger living;
    EXPECT_TRUE(RefusesFromElsewhere(Hello(living.id)));
    peers_.PeerAt(living.id);
    EXPECT_TRUE(RefusesFromElsewhere(Hello(living.id))) << "nor while it is being greeted";
    EXPECT_TRUE(RefusesFromElsewhere(Hello(known.id, CHANNEL, known.key)));
    // The name of a process that is leaving is free before the process has gone.
    unlink(EndpointPath(known.id).c_str());
    EXPECT_TRUE(RefusesFromElsewhere(Hello(known.id)));
    const Stranger left;
    const int takenOver = dup(left.listener.Get());
    Say(Hello(left.id)).Reset(), Deal();
    EXPECT_TRUE(RefusesFromElsewhere(Hello(left.id), takenOver)) << "another has greeted as that";
    close(takenOver);
}

// Those beyond are refused, and may come again. One for which there is no descriptor waits until a tick.
TEST_F(IpcPeers, AProcessHasConnectionsForAQuarterOfTheDescriptors)
{
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit few{400, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const Stranger known = Meet();
    std::vector<UniqueFd> connections;
    do {
        connections.push_back(Say(""));
    } while (!HasEnded(connections.back()) && connections.size() < 150);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(connections.size(), 100U);
    EXPECT_EQ(Heard(known.link), Frame(CLOSE_IDLE)) << "others are asked for theirs";
    connections.clear();
    const rlimit none{1, usual.rlim_max};
    for (const char* const time : {"first", "second"}) {
        const Stranger stranger;
        const UniqueFd made = ConnectTo(EndpointPath(transport_.Id()));
        setrlimit(RLIMIT_NOFILE, &none);
        Deal(made, Hello(stranger.id));
        setrlimit(RLIMIT_NOFILE, &usual);
        Deal();
        EXPECT_EQ(Heard(made), "") << time;
        transport_.Loop().Tick(Now());
        Deal();
        EXPECT_NE(Heard(made), "") << time;
    }
}

// Whatever ends a greeting ends the objects that came to use it, and nothing else: what they owe is paid later.
TEST_F(IpcPeers, AProcessThatDoesNotAnswerIsTriedAgain)
{
    const auto refusal = [](Refusal reason) { return Bytes(MakeRefusal(reason, 1)); };
    const std::pair<const char*, std::string> rows[] = {{"cut", ""}, {"a breach", Frame(RELEASE)},
        {"another greeting", Hello(1)}, {"another's answer", Hello(1, LINK, {1, 2}, HELLO_REPLY)},
        {"a key", Hello(1, LINK, {}, KEY)}, {"a session is said to stand", refusal(Refusal::STANDS)},
        {"another version", refusal(Refusal::VERSION)}, {"this process is dead", refusal(Refusal::DEAD)}};
    for (const auto& [name, said] : rows) {
        const Stranger other;
        const sptr<Peer> peer = peers_.PeerAt(other.id);
        sptr<IRemoteObject> object = peer->Object(7);
        const sptr<test::CountingRecipient> recipient(new test::CountingRecipient);
        object->AddDeathRecipient(recipient);
        Write(AcceptFrom(other.listener), said);
        EXPECT_FALSE(object->IsObjectDead()) << name;
        Deal();
        EXPECT_TRUE(object->IsObjectDead() && transport_.Deaths().TellOne() && recipient->count == 1) << name;
        EXPECT_EQ(Send(object, {}), IPC_CONNECTION_LOST) << name;
        object = nullptr;
        peer->Object(0);                  // nothing is owed for the context object
        transport_.Workers().RunTasks();  // may have had the last reference
        const sptr<Peer> again = peers_.PeerAt(other.id);
        EXPECT_EQ(peers_.HasDied(other.id), said == refusal(Refusal::DEAD)) << name;
        EXPECT_EQ(again->Object(7)->IsObjectDead(), said == refusal(Refusal::DEAD)) << name;
        if (again->IsConnected()) {
            const UniqueFd link = AcceptFrom(other.listener);
            Deal(link, Hello(other.id, LINK, {1, 2}, HELLO_REPLY));
            ChannelKey key;
            EXPECT_TRUE(again->WaitForKey(Now(), again->Generation(), key) && key == (ChannelKey{1, 2})) << name;
            const size_t owed = again == peer ? 2 : 1;  // a process of another version is forgotten
            const std::string own = Hello(transport_.Id(), LINK, again->IssuedKey(), KEY);
            EXPECT_EQ(Heard(link), Hello(transport_.Id()) + own + Times(owed, Frame(RELEASE, 7, 1))) << name;
        }
    }
}

// The connection stays that the process with the larger endpoint has made, unless it fails.
TEST_F(IpcPeers, OfTwoThatGreetAtOnceOneConnectionStays)
{
    const std::tuple<EndpointId, bool, bool> rows[] = {
        {1, true, true}, {2, false, false}, {~EndpointId{0}, true, false}};
    for (const auto& [id, isAnswered, staysOwn] : rows) {
        const Stranger other{id, ListenAt(EndpointPath(id)), {}, {}};
        const sptr<Peer> peer = peers_.PeerAt(id);
        const sptr<IRemoteObject> object = peer->Object(7);
        EXPECT_FALSE(peer->Await(nullptr)) << "it awaits an answer already";
        UniqueFd own = AcceptFrom(other.listener);  // the transport's own
        const UniqueFd others = Say(Hello(id));
        const std::string answer = Hello(transport_.Id(), LINK, peer->IssuedKey(), HELLO_REPLY);
        EXPECT_EQ(Heard(others), id > transport_.Id() ? answer : "") << "the larger waits for its own answer first";
        EXPECT_EQ(HasEnded(own), id > transport_.Id());
        if (staysOwn) {
            Deal(own, Hello(id, LINK, {1, 2}, HELLO_REPLY));
        } else {
            own.Reset();
            Deal();
            Deal(others, Hello(id, LINK, {1, 2}, KEY));
        }
        const std::string refusal = Bytes(MakeRefusal(Refusal::STANDS, transport_.Id())) + "END";
        EXPECT_EQ(Heard(others), staysOwn ? refusal : id > transport_.Id() ? "" : answer);
        EXPECT_TRUE(peer->Stands() && object->IsObjectDead() == (id == 2)) << id;
    }
}

// Frames for a process that can't be reached are kept until it is clear that there is none.
TEST_F(IpcPeers, AProcessThatIsOwedSomethingIsTriedAtEachTick)
{
    const auto start = Now();
    for (const char* const end : {"comes back", "listens no more", "has no endpoint"}) {
        Stranger other;
        peers_.PeerAt(other.id);
        const ObjectId id = peers_.AddHolder(new IPCObjectStub, other.id);
        AcceptFrom(other.listener).Reset();
        Deal();
        const sptr<Peer> peer = peers_.KnownPeer(other.id);
        const sptr<IRemoteObject> object = peer->Object(7);  // dead, as there is no connection
        EXPECT_FALSE(peer->SendOnLink(std::string(33554433, 0).data(), 33554433)) << "no more than 32 MiB are kept";
        if (end[0] == 'l') {
            other.listener.Reset();
        } else {
            unlink(EndpointPath(other.id).c_str());
        }
        transport_.Loop().Tick(start);
        if (end[0] == 'c') {
            other.listener = ListenAt(EndpointPath(other.id));
        }
        transport_.Loop().Tick(start + 5s);
        EXPECT_EQ(peers_.KnownPeer(other.id) != nullptr, end[0] != 'l') << end;
        EXPECT_EQ(peer->Object(7)->IsObjectDead(), end[0] != 'c') << end;
        if (end[0] == 'c') {  // and goes again
            AcceptFrom(other.listener).Reset(), Deal();
            unlink(EndpointPath(other.id).c_str());
        }
        transport_.Loop().Tick(start + 5001ms);
        EXPECT_EQ(peers_.KnownPeer(other.id) != nullptr, end[0] == 'c') << end;
        EXPECT_EQ(transport_.Objects().Find(id, other.id) != nullptr, end[0] == 'c') << end;
        EXPECT_FALSE(peers_.HasDied(other.id)) << end;
    }
}

// A socket stays open while anyone has it, so a process may end before its session does.
TEST_F(IpcPeers, TheEndOfAProcessEndsItsSession)
{
    const EndpointId id = RandomNumber();
    const UniqueFd listener = ListenAt(EndpointPath(id));
    const int shared = dup(listener.Get());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(transport_.Id());
    const pid_t child = fork();
    if (child == 0) {
        listen(shared, 4);
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        for (;; pause()) {
        }
    }
    const UniqueFd link = UniqueFd::Make([&] { return fd; });
    EXPECT_TRUE(Eventually([&] { return CredentialsOf(link).pid > 0; }));
    Deal(link, Hello(id));
    Deal(link, Hello(id, LINK, {}, KEY));
    const sptr<Peer> peer = peers_.KnownPeer(id);
    ASSERT_TRUE(peer != nullptr && peer->Stands());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    Deal(link, Frame(UNGRANT));
    EXPECT_TRUE(HasEnded(link) && peers_.HasDied(id));
    close(shared);
}

TEST_F(IpcPeers, AGreetingIsWaitedForFiveSeconds)
{
    const Stranger stranger;
    const Deadline before = Now();
    const UniqueFd half = Say(Hello(stranger.id).substr(0, 40));
    const UniqueFd whole = Say(Hello(stranger.id));
    transport_.Loop().Tick(before + 5s);
    EXPECT_FALSE(HasEnded(half));
    transport_.Loop().Tick(Now() + 5001ms);
    EXPECT_TRUE(HasEnded(half) && !HasEnded(whole));
}

TEST_F(IpcPeers, ASessionBearsSoMuch)
{
    const sptr<CountingStub> object(new CountingStub);
    const Stranger third = Meet();
    const ObjectId id = peers_.AddHolder(object, third.id);
    const ObjectId others = peers_.AddHolder(new IPCObjectStub, third.id);
    const EndpointId dead[] = {Meet().id, Meet().id, Meet().id, Meet().id, Meet().id};
    const std::string largest = FrameOf(MakeHeader(ONE_WAY, id), 16777216).substr(0, 32);
    // How often a frame is borne, and how often it is not; 0 is not tried.
    const std::tuple<const char*, size_t, size_t, std::string> rows[] = {
        {"calls of what it owes", 64, 80, Frame(RELEASE, others, 1) + Frame(ONE_WAY, others)},
        {"grants of what it does not hold", 64, 80, Frame(GRANT, others, third.id) + Frame(UNGRANT, others, third.id)},
        {"the receiver's objects that it does not hold", 64, 80, OneWay(id, {{transport_.Id(), others}})},
        {"objects out of reach", 64, 80, OneWay(id, {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}})},
        {"fewer of them, and null", 80, 0, OneWay(id, {{1, 1}, {2, 1}, {3, 1}, {4, 1}, {0, 1}})},
        {"of known dead", 80, 0, OneWay(id, {{dead[0], 1}, {dead[1], 1}, {dead[2], 1}, {dead[3], 1}, {dead[4], 1}})},
        {"grants of what it holds", 80, 0, Frame(GRANT, id, third.id) + Times(2, Frame(UNGRANT, id, third.id))},
        {"grants to nobody", 80, 0, Frame(GRANT, id, 0x1234)},
        {"grants to the owner", 80, 0, Frame(GRANT, id, transport_.Id())},
        {"taking back what was not granted", 80, 0, Frame(UNGRANT, others, third.id)},
        {"one-way requests", 128, 129, Frame(ONE_WAY, id)},
        {"the largest one", 1, 0, Frame(ONE_WAY_WANT, 0, 17760256) + largest},
        {"the same behind another", 0, 1,
            Frame(ONE_WAY_WANT, 0, 17760256) + FrameOf(MakeHeader(ONE_WAY, id), 4) + largest},
        {"a window for more than that", 0, 1, Frame(ONE_WAY_WANT, 0, 17760257)},
        {"a window that was not asked for", 0, 1, Frame(ONE_WAY_WINDOW, 0, 1)},
        {"releases of what it does not hold", 80, 0, Frame(RELEASE, others, 4294967295)},
        {"a larger one", 0, 1, Frame(RELEASE, others, 4294967296)},
        {"a release with data", 0, 1, FrameOf(RELEASE, 4)},
        {"or with objects", 0, 1, OneWay(others, {{1, 1}}, MakeHeader(RELEASE))},
        {"an acknowledgement of what was not sent", 0, 1, Frame(ONE_WAY_ACK, 1, 0)},
        {"of bytes", 0, 1, Frame(ONE_WAY_ACK, 0, 4)},
        {"a second greeting", 0, 1, Hello(third.id)},
        {"a request", 0, 1, Frame(REQUEST, id)},
    };
    for (const auto& [name, borne, notBorne, frame] : rows) {
        for (const size_t times : {borne, notBorne}) {
            const Stranger peer = Meet();
            peers_.AddHolder(object, peer.id);
            Deal(peer.link, Frame(ONE_WAY_WANT, 0, 65536) + Times(times, frame));
            EXPECT_EQ(HasEnded(peer.link), times == notBorne && times > 0) << name << ", " << times;
        }
    }
    transport_.Workers().RunTasks();
    EXPECT_GT(object->calls, 128);
    const Stranger asking = Meet();
    peers_.AddHolder(object, asking.id);
    const std::string notHeld =
        Frame(REQUEST, others) + OneWay(id, {{transport_.Id(), others}, {asking.id, 9}}, MakeHeader(REQUEST));
    const UniqueFd channel = Say(Hello(asking.id, CHANNEL, asking.key) + notHeld + Frame(REQUEST, id));
    transport_.Workers().RunTasks();
    FrameHeader refused = MakeHeader(REPLY);
    refused.code = static_cast<uint32_t>(IPC_REFUSED);
    const std::string replies = Heard(channel);
    EXPECT_TRUE(replies.starts_with(Times(2, Bytes(refused))) && !replies.ends_with("END"));
    EXPECT_EQ(transport_.Objects().Find(id, transport_.Id()), nullptr);
    // Nobody takes back more than it has granted, and granted is only what its giver holds.
    EXPECT_TRUE(transport_.Objects().Find(id, third.id) && transport_.Objects().Find(others, third.id));
    Deal(asking.link, Frame(RELEASE, others, 1));
    Deal(third.link, Frame(RELEASE, others, 1));
    EXPECT_EQ(transport_.Objects().Size(), 1U) << "a debt keeps nothing alive";
}

// By how far a request has come on a channel, the references that travel with it are the receiver's or not.
TEST_F(IpcPeers, AFailedRequestTakesBackWhatHasNotLeft)
{
    const Stranger stranger = Meet();
    const Stranger owner = Meet();
    const sptr<Peer> peer = peers_.KnownPeer(stranger.id);
    const sptr<IRemoteObject> passed = peers_.KnownPeer(owner.id)->Object(8);
    const sptr<IRemoteObject> own(new IPCObjectStub);
    const std::string grant = Frame(GRANT, 8, stranger.id);
    const std::string back = Frame(UNGRANT, 8, stranger.id);
    const sptr<IRemoteObject> its = peer->Object(7);
    const ObjectId granted = peers_.AddHolder(new IPCObjectStub, owner.id);
    // To the third request.
    const std::string reply = OneWay(0, {{stranger.id, 9}, {transport_.Id(), granted}}, MakeHeader(REPLY, 0, 3));
    const std::string unsound = OneWay(0, {{transport_.Id(), 99}}, MakeHeader(REPLY, 0, 4));  // that nobody was given
    // The bytes that the other end has sent before it ended its sending, or "closed"; "late" when it does not end.
    const std::tuple<std::string, int32_t, bool> rows[] = {{"closed", IPC_CONNECTION_LOST, false},
        {"", IPC_CONNECTION_LOST, false}, {reply, IPC_OK, true}, {unsound, IPC_FAILED, true},
        {"VXF1", IPC_CONNECTION_LOST, true}, {"late", IPC_TIMED_OUT, true}};
    for (const auto& [said, result, isKept] : rows) {
        SocketPair ends;
        ClientChannel channel = peer->Channels().Open(std::move(ends.near), transport_.Id(), {});
        Write(ends.far, said);
        if (said != "late") {
            shutdown(ends.far.Get(), said == "closed" ? SHUT_RDWR : SHUT_WR);
        }
        peer->Channels().Return(std::move(channel));
        Write(owner.link, said == reply ? Frame(GRANT, granted, stranger.id) : "");
        const Deadline start = Now();
        EXPECT_EQ(Send(its, {own, passed, its}), result) << said;
        EXPECT_TRUE(Now() - start < 2s && (said != "late" || Now() - start >= 1s)) << said;
        EXPECT_EQ(transport_.Objects().Size(), isKept ? 2U : 1U) << said;
        EXPECT_EQ(Heard(stranger.link), said == reply ? Frame(RELEASE, 9, 1) : "") << "and nothing of its own object";
        EXPECT_EQ(Heard(owner.link), isKept ? grant : grant + back) << said;
        // Its objects have arrived, and it is kept for later.
        EXPECT_TRUE(Heard(ends.far).ends_with(said == reply || said == unsound ? Frame(REPLY_ACK) : "END")) << said;
    }
    EXPECT_EQ(Send(its, {new ScriptedRemoteObject}), IPC_FAILED);
    const std::string much = FrameOf(ONE_WAY, 1'000'000);
    EXPECT_TRUE(peers_.KnownPeer(owner.id)->SendOnLink(much.data(), much.size()));
    EXPECT_EQ(Send(its, {passed}), IPC_FAILED) << "the owner, who has to be told first, reads nothing";
    const sptr<CountingStub> giver(new CountingStub);
    giver->gives = passed;
    MessageParcel none;
    MessageParcel refused;
    PeerRequests(peers_, peer).Answer(none, MakeHeader(REQUEST, peers_.AddHolder(giver, stranger.id)), refused);
    FrameHeader failed = MakeHeader(REPLY);
    failed.code = static_cast<uint32_t>(IPC_FAILED);
    EXPECT_EQ(Bytes(HeaderOf(refused)), Bytes(failed));
    std::string heard;
    EXPECT_TRUE(
        Eventually([&] { return Deal(), (heard += Heard(owner.link)).ends_with(grant + back + grant + back); }));
    const SocketPair another;  // has the number of the channel that was lost last
    shutdown(stranger.link.Get(), SHUT_RDWR);
    Deal();
    EXPECT_FALSE(HasEnded(another.near));
}

// A process that has taken over the name of another, or nobody that of the context object, is told nothing.
TEST_F(IpcPeers, AChannelIsOpenedToTheProcessThatGreeted)
{
    const Stranger stranger = Meet();
    const sptr<IRemoteObject> object = peers_.KnownPeer(stranger.id)->Object(7);
    UniqueFd listener = ListenElsewhere(EndpointPath(stranger.id), geteuid());
    EXPECT_EQ(Send(object, {}), IPC_CONNECTION_LOST);
    EXPECT_TRUE(IsConnectedToAndHearsNothing(listener));
    listener.Reset();
    EXPECT_EQ(Send(object, {}), IPC_CONNECTION_LOST) << "nobody has the name";
    Deal();
    EXPECT_FALSE(object->IsObjectDead());
    if (geteuid() == 0) {
        std::filesystem::permissions(RuntimeDirectory(), std::filesystem::perms::all);
        const UniqueFd anothers = ListenElsewhere(ContextSocketPath(), 65534);
        EXPECT_EQ(transport_.Context().Reach(), nullptr);
        EXPECT_TRUE(IsConnectedToAndHearsNothing(anothers));
    }
}

// The backlog has room for one connection.
TEST_F(IpcPeers, AMuteContextObjectIsWaitedForOnceByAll)
{
    const UniqueFd mute = ListenAt(ContextSocketPath());
    listen(mute.Get(), 0);
    const Deadline start = Now();
    std::thread another([&] { EXPECT_EQ(transport_.Context().Reach(), nullptr); });
    EXPECT_EQ(transport_.Context().Reach(), nullptr);
    another.join();
    EXPECT_TRUE(Now() - start >= 950ms && Now() - start < 1900ms);
    EXPECT_TRUE(HasEnded(AcceptFrom(mute)));
}

TEST_F(IpcPeers, AnotherContextSocketIsHeardOfAndAfterADeathLookedFor)
{
    Transport& manager = Make();
    ASSERT_TRUE(manager.Start() && manager.Publish(new IPCObjectStub) == PublishResult::DONE);
    const auto deal = [&] { manager.Loop().Turn(false), Deal(), transport_.Workers().RunTasks(); };
    const sptr<Peer> peer = peers_.PeerAt(manager.Id());
    EXPECT_TRUE(Eventually([&] { return deal(), peer->Stands(); }));
    transport_.Loop().Tick(Now());  // and it need not be tried again
    auto reached = std::async(std::launch::async, [&] { return transport_.Context().Reach() == peer; });
    EXPECT_TRUE(Eventually([&] { return deal(), reached.wait_for(0s) == std::future_status::ready; }) && reached.get());
    int news = 0;
    int looks = 0;
    transport_.Watch().OnNewContext([&] { ++news; });
    transport_.Loop().SetTickAction([&](Deadline) { ++looks; });
    Meet();  // and its death
    deal();
    transport_.Watch().Look();
    const std::string away = RuntimeDirectory() + ".away";
    std::filesystem::rename(RuntimeDirectory(), away);
    EXPECT_TRUE(CreateRuntimeDirectory());
    deal();
    ListenAt(ContextSocketPath());
    deal();
    EXPECT_EQ(news, 1);
    const std::string own = EndpointPath(transport_.Id());
    EXPECT_TRUE(unlink(own.c_str()) == 0 && Eventually([&] { return deal(), access(own.c_str(), F_OK) == 0; }));
    EXPECT_FALSE(Eventually([&] { return deal(), looks > 0; }, 1100ms));
    manager.Loop().CutAll();
    EXPECT_TRUE(Eventually([&] { return deal(), news == 2; })) << "the action may have reached the former publisher";
    EXPECT_TRUE(Eventually([&] { return deal(), looks > 0; }, 2s)) << "another directory may get the next one";
    EXPECT_EQ(transport_.Context().Reach(), nullptr);
    transport_.Loop().SetTickAction([](Deadline) {});  // the counters end before the last tick
    std::filesystem::remove_all(away);
}

TEST_F(IpcPeers, ADeathEndsWhatLivedOffTheProcess)
{
    Stranger stranger = Meet();
    const sptr<Peer> peer = peers_.KnownPeer(stranger.id);
    SocketPair ends;
    const ClientChannel channel = peer->Channels().Open(std::move(ends.near), transport_.Id(), {});
    stranger.link.Reset();
    Deal();
    EXPECT_TRUE(HasEnded(ends.far)) << "callers in a request are woken";
    ChannelKey key;
    EXPECT_FALSE(peer->WaitForKey(Now(), peer->Generation(), key));
    MessageParcel request;
    EXPECT_FALSE(PeerRequests(peers_, peer).Answer(request, MakeHeader(REQUEST), request))
        << "what it has asked before";
    const Stranger living = Meet();
    const ObjectId id = peers_.AddHolder(new IPCObjectStub, living.id);
    peers_.AddHolder(new IPCObjectStub, stranger.id);
    peers_.AdjustHolder(id, stranger.id, 1);
    EXPECT_TRUE(transport_.Objects().Size() == 1 && !transport_.Objects().Find(id, stranger.id));
}

TEST_F(IpcPeers, TheLast4096DeadAreRemembered)
{
    std::vector<EndpointId> dead;
    for (int i = 0; i < 4097; ++i) {
        Stranger stranger = Meet();
        dead.push_back(stranger.id);
        stranger.link.Reset();
        transport_.Loop().Turn(false);
        unlink(EndpointPath(stranger.id).c_str());
    }
    EXPECT_TRUE(!peers_.HasDied(dead[0]) && peers_.HasDied(dead[1]) && peers_.HasDied(dead[4096]));
}

// All strangers are one process to the kernel.
TEST_F(IpcPeers, AProcessQueues64MebibytesAndLeaves64KibibytesAtItsDeath)
{
    const sptr<CountingStub> object(new CountingStub);
    std::vector<Stranger> strangers(5);
    std::vector<std::string> heard(5);
    // Lists the processes that have a window when some have died.
    const auto windows = [&] {
        Deal();
        transport_.Workers().RunTasks();
        std::string have;
        for (size_t i = 0; i < strangers.size(); ++i) {
            have += (heard[i] += Heard(strangers[i].link)).ends_with(Frame(ONE_WAY_WINDOW, 0, 16777216)) ? 'y' : 'n';
        }
        return have;
    };
    for (Stranger& stranger : strangers) {
        stranger = Meet();
        peers_.AddHolder(object, stranger.id);
        Deal(stranger.link, Frame(ONE_WAY_WANT, 0, 16777216));
    }
    EXPECT_EQ(windows(), "yyyyn");
    const FrameHeader word = MakeHeader(ONE_WAY, peers_.AddHolder(object, strangers[0].id));
    Deal(strangers[0].link, Times(3, FrameOf(word, 30'000)) + FrameOf(word, 4));
    Deal(strangers[4].link, Times(2, FrameOf(word, 30'000)));
    ProcessLife::Watch();  // a child closes what is the transport's
    EXPECT_EQ(InChild([&] { return ProcessLife::Leave(), transport_.Workers().RunTasks(), object->calls; }), 0);
    shutdown(strangers[0].link.Get(), SHUT_RDWR);
    EXPECT_EQ(windows(), "nyyyy") << "the first has ended";
    EXPECT_EQ(object->calls, 2 + 2) << "all of those that live";
}

TEST_F(IpcPeers, ThePublisherClearsAwayTheSocketsOfTheDead)
{
    for (const bool publishes : {false, true}) {
        ASSERT_TRUE(!publishes || transport_.Publish(new IPCObjectStub) == PublishResult::DONE);
        for (const bool listens : {true, false}) {
            Stranger stranger = Meet();
            stranger.link.Reset();
            listen(stranger.listener.Get(), 0);  // its backlog is full: nobody has accepted the transport's probe
            if (!listens) {
                stranger.listener.Reset();
            }
            Deal();
            EXPECT_EQ(access(EndpointPath(stranger.id).c_str(), F_OK) == 0, listens || !publishes);
        }
    }
    for (const auto& socket : std::filesystem::directory_iterator(EndpointDirectory())) {
        EXPECT_TRUE(socket.path() == EndpointPath(transport_.Id()) || std::filesystem::remove(socket));
    }
    transport_.Leave();
    EXPECT_FALSE(std::filesystem::exists(RuntimeDirectory()));
}

}  // namespace
}  // namespace VEXA::ipc
