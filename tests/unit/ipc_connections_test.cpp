// SPDX-License-Identifier: Apache-2.0
#include <sys/epoll.h>

#include "ipc_fixture.h"
#include "parcel_access.h"

namespace VEXA::ipc {
namespace {

using enum FrameKind;
using Result = FrameReader::Result;
using Reached = ClientChannel::Reached;

// The worked example of docs/wire-format.md.
const std::string GOLDEN_REQUEST(
    "VXF1\x03\0\0\0\x0C\0\0\0\x05\0\0\0"
    "\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
    "\x01\0\0\0T\0\0\0\x07\0\0\0",
    44);

class FrameStream : public testing::Test {
protected:
    static std::string WholeOf(MessageParcel& frame)
    {
        return {reinterpret_cast<char*>(ParcelAccess::Storage(frame)), kHeaderBytes + HeaderOf(frame).bytes};
    }
    Result Read()
    {
        MessageParcel scratch;
        MessageParcel* frame = nullptr;
        Result result;
        while ((result = reader_.Read(ends_.near.Get(), scratch, frame)) == Result::LARGE) {
        }
        if (result == Result::FRAME) {
            frame_ = WholeOf(*frame);
            reader_.Done();
        }
        return result;
    }

    SocketPair ends_;
    FrameReader reader_;
    std::string frame_;  // that was read last
};

TEST_F(FrameStream, FramesComeTogetherFromAnyPieces)
{
    MessageParcel parcel;
    parcel.WriteInterfaceToken(u"T");
    parcel.WriteInt32(7);
    FrameHeader header = MakeHeader(REQUEST, 1);
    header.code = 5;
    header.bytes = static_cast<uint32_t>(parcel.GetDataSize());
    SetHeader(parcel, header);
    EXPECT_EQ(WholeOf(parcel), GOLDEN_REQUEST);
    uint64_t received = 0;
    for (const size_t dataBytes : std::vector<size_t>{0, 4, 476, 480, 484, 5000}) {
        const std::string frame = FrameOf(ONE_WAY, dataBytes);
        for (size_t cut = 1; cut<frame.size(); cut += dataBytes> 1000 ? 97 : 1) {
            Write(ends_.far, frame.substr(0, cut));
            ASSERT_EQ(Read(), Result::PARTIAL) << dataBytes << " cut at " << cut;
            Write(ends_.far, frame.substr(cut) + frame + GOLDEN_REQUEST);
            for (const std::string& expected : {frame, frame, GOLDEN_REQUEST}) {
                ASSERT_EQ(Read(), Result::FRAME) << dataBytes << " cut at " << cut;
                ASSERT_EQ(frame_, expected);
            }
            ASSERT_EQ(Read(), Result::PARTIAL);
            ASSERT_EQ(reader_.Received(), received += 2 * frame.size() + GOLDEN_REQUEST.size());
        }
    }
    Write(ends_.near, "not read by the peer, whose end is a reset then");
    ends_.far.Reset();
    EXPECT_TRUE(Read() == Result::END && Read() == Result::END);
}

TEST_F(FrameStream, HeadersAreBelievedWithinTheLimits)
{
    // Magic, kind, objects, bytes; and whether that is a header.
    const std::tuple<uint32_t, uint16_t, uint16_t, uint32_t, bool> rows[] = {{kMagic, 15, 256, 16777216, true},
        {0, 1, 0, 0, false}, {kMagic, 0, 0, 0, false}, {kMagic, 16, 0, 4, false}, {kMagic, 1, 257, 4, false},
        {kMagic, 1, 0, 16777220, false}, {kMagic, 1, 0, 6, false}, {kMagic, 1, 0, 4, true}};
    for (const auto& [magic, kind, objects, bytes, isSound] : rows) {
        reader_.Reset();
        Write(ends_.far, Bytes(FrameHeader{magic, FrameKind(kind), objects, bytes, 0, 0, 0}));
        EXPECT_EQ(Read(), isSound ? Result::PARTIAL : Result::MALFORMED) << magic << ' ' << kind << ' ' << objects;
        // Nothing is allocated for what is announced, but for as much again as has come.
        EXPECT_TRUE(!isSound || ParcelAccess::Capacity(*reader_.TakeOwn()) <= 4096);
    }
}

// Lets acknowledgements wait while there is a settling.
class TestLink : public Link {
public:
    using Link::Link;
    size_t frames = 0;
    int ends = 0;
    int calls = 0;
    std::string admitted{};
    void OnEvents(uint32_t events) override { ++calls, Link::OnEvents(events); }

protected:
    bool Admit(const FrameHeader& header) override
    {
        return header.kind != RELEASE && (admitted += Bytes(header)) != "";
    }
    Verdict Handle(const FrameHeader& header, MessageParcel&) override
    {
        if (header.kind == ONE_WAY_ACK && reactor_.Settling()) {
            return Verdict::WAIT;
        }
        EXPECT_EQ(std::exchange(admitted, ""), Bytes(header)) << "each frame once";
        return ++frames, Verdict::GO_ON;
    }
    void OnEnd() override { ++ends; }
};

class LinkTest : public IpcParts {
protected:
    LinkTest() { EXPECT_TRUE(reactor_.Add(link_, EPOLLIN | EPOLLRDHUP)); }

    SocketPair ends_;
    ConnectionCounts counts_{[] { return 2; }};  // one for a user
    const sptr<TestLink> link_{new TestLink({std::move(ends_.near), {1, 7}, counts_.Take({1, 7})}, reactor_)};
    const std::string frame_ = FrameOf(ONE_WAY, (1 << 20) - kHeaderBytes);
};

TEST_F(LinkTest, ReadsInTurnUntilItEndsAndIsCountedNoLonger)
{
    // The bytes that come, and how many frames have been dealt with after one turn, and after a settling.
    const std::string large = FrameOf(ONE_WAY, 8000);
    const std::tuple<std::string, size_t, size_t> rows[] = {{Times(65, FrameOf(ONE_WAY)), 64, 65},
        {large.substr(0, 4), 65, 65}, {large.substr(4, 4000), 65, 65}, {large.substr(4004) + large, 67, 67},
        {Times(66, FrameOf(ONE_WAY)) + FrameOf(ONE_WAY_ACK) + FrameOf(ONE_WAY), 131, 133}};
    for (const auto& [bytes, turned, settled] : rows) {
        Write(ends_.far, bytes);
        reactor_.Turn(false);
        EXPECT_EQ(link_->frames, turned);
        reactor_.Settle(0s);
        EXPECT_EQ(link_->frames, settled);
    }
    reactor_.Turn(false);
    EXPECT_EQ(link_->frames, 135U) << "what waited goes on";
    EXPECT_EQ(counts_.Take({1, 7}), nullptr);
    EXPECT_TRUE(link_->Send(frame_.data(), frame_.size()));
    auto flushed = std::async(std::launch::async, [&] { return link_->WaitFlushed(Now() + 20s); });
    EXPECT_EQ(flushed.wait_for(20ms), std::future_status::timeout);
    Write(ends_.far, FrameOf(RELEASE, 4).substr(0, 32));  // refused by its header
    reactor_.Turn(false);
    EXPECT_EQ(flushed.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(link_->ends, 1);
    EXPECT_TRUE(HasEnded(ends_.far));
    EXPECT_FALSE(link_->Send(frame_.data(), 32));
    EXPECT_NE(counts_.Take({1, 7}), nullptr);
}

TEST_F(LinkTest, KeepsUpTo32MebibytesThatAreNotRead)
{
    for (int i = 0; i < 32; ++i) {
        EXPECT_TRUE(link_->Send(frame_.data(), frame_.size())) << i;
    }
    std::string all;
    bool isMore = false;
    auto flushed = std::async(std::launch::async, [&] { return link_->WaitFlushed(Now() + 60s); });
    EXPECT_TRUE(Eventually([&] {
        reactor_.Turn(false);
        isMore = isMore || (all.size() > (20U << 20) && link_->Send(frame_.data(), frame_.size()));
        const bool isFlushed = flushed.wait_for(0s) == std::future_status::ready;
        return (all += Heard(ends_.far)).size() == 33 * frame_.size() && isFlushed;
    }));
    EXPECT_TRUE(all == Times(33, frame_));
    link_->calls = 0;
    reactor_.Turn(false);
    EXPECT_EQ(link_->calls, 0) << "there is nothing left to do";
    int mebibytes = 0;
    while (mebibytes < 100 && link_->Send(frame_.data(), frame_.size())) {
        flushed = mebibytes++ > 0 ? std::move(flushed)
                                  : std::async(std::launch::async, [&] { return link_->WaitFlushed(Now() + 20s); });
    }
    EXPECT_TRUE(mebibytes == 32 || mebibytes == 33) << mebibytes << ": the kernel holds a part of one";
    EXPECT_EQ(flushed.wait_for(5s), std::future_status::ready) << "the end wakes who waits";
    reactor_.Turn(false);
    EXPECT_EQ(link_->ends, 1);
}

TEST(ClientChannelTest, BelievesWholeRepliesThatComeInTime)
{
    const std::string reply = FrameOf(REPLY, 8);
    const std::string large = FrameOf(REPLY, 8000);
    // The bytes that the other end sends. It then ends or, where there is a limit, waits; signals come meanwhile.
    const std::tuple<const char*, std::string, std::chrono::milliseconds, int32_t, Reached> rows[] = {
        {"a reply", reply, 0ms, IPC_OK, Reached::SENT},
        {"a large one", large, 0ms, IPC_OK, Reached::SENT},
        {"bytes behind it", reply + "1234", 0ms, IPC_CONNECTION_LOST, Reached::SENT},
        {"another kind", FrameOf(REQUEST, 8), 0ms, IPC_CONNECTION_LOST, Reached::SENT},
        {"too large", FrameOf(REPLY, 16777220).substr(0, 32), 0ms, IPC_CONNECTION_LOST, Reached::SENT},
        {"half of a header", reply.substr(0, 16), 0ms, IPC_CONNECTION_LOST, Reached::SENT},
        {"half of the data", large.substr(0, 4000), 0ms, IPC_CONNECTION_LOST, Reached::SENT},
        {"the end", "", 0ms, IPC_CONNECTION_LOST, Reached::TURNED_AWAY},
        {"a reply, and nothing more", reply, 20s, IPC_OK, Reached::SENT},
        {"nothing", "", 1000ms, IPC_TIMED_OUT, Reached::SENT},
        {"half of the data, and waits", large.substr(0, 4000), 250ms, IPC_TIMED_OUT, Reached::SENT},
        {"nothing by a time that is past", "", -10ms, IPC_TIMED_OUT, Reached::SENT},
        {"a large reply by a time that is past", large, -10ms, IPC_OK, Reached::SENT},
    };
    for (const auto& [name, bytes, limit, result, expected] : rows) {
        MessageParcel request;
        MessageParcel answer;
        SetHeader(request, MakeHeader(REQUEST, 1));
        SocketPair ends;
        ClientChannel channel(std::move(ends.near));
        Write(ends.far, bytes);
        if (limit == 0ms) {
            shutdown(ends.far.Get(), SHUT_WR);
        }
        Reached reached{};
        const Deadline start = Now();
        const std::unique_ptr<Alarms> alarms(limit == 250ms ? new Alarms : nullptr);
        const Deadline end = start + (limit == 0ms ? 20s : limit);
        EXPECT_EQ(channel.Exchange(request, kHeaderBytes, answer, end, reached), result) << name;
        EXPECT_EQ(reached, expected) << name;
        // The limit is that of the request, not of the one before it.
        channel.Exchange(request, kHeaderBytes, answer, Now() + 100ms, reached);
        EXPECT_EQ(reached == Reached::TURNED_AWAY, limit == 0ms && bytes.size() < kHeaderBytes) << name;
        EXPECT_LT(Now() - start, 5s) << name;
        if (limit == 20s) {
            const auto late = std::async([&] { std::this_thread::sleep_for(200ms), Write(ends.far, reply); });
            EXPECT_EQ(channel.Exchange(request, kHeaderBytes, answer, Now() + limit, reached), IPC_OK);
        }
    }
}

TEST(ClientChannelsTest, KeepsSixteenAndEndsAllWhenThePeerDies)
{
    ClientChannels channels;
    std::vector<SocketPair> pairs(20);
    std::vector<ClientChannel> used;
    for (SocketPair& ends : pairs) {
        used.push_back(channels.Open(std::move(ends.near), 1, {}));
    }
    for (size_t i = 0; i < 17; ++i) {
        channels.Return(std::move(used[i]));
    }
    channels.Lose(used[17]);
    const SocketPair another;  // has the number of the one too many
    int others = -1;
    std::thread([&] {
        ClientChannel its = channels.TakeIdle();
        others = its.Fd(), channels.Return(std::move(its));
    }).join();
    ClientChannel own = channels.TakeIdle();
    EXPECT_NE(own.Fd(), others) << "a thread gets the one that it had last";
    channels.Return(std::move(own));
    // At first, when it closes those that are idle, and when it closes all.
    for (const int step : {0, 1, 2}) {
        for (size_t i = 0; i < 20; ++i) {
            EXPECT_EQ(HasEnded(pairs[i].far), i == 16 || (step > 0 && i < 16) || (step > 1 && i != 17)) << i;
        }
        step == 0 ? (channels.CloseIdle(), channels.Return(std::move(used[19]))) : channels.Close();
    }
    EXPECT_FALSE(HasEnded(another.far) || HasEnded(another.near));
    channels.Return(std::move(used[18]));
    EXPECT_FALSE(channels.TakeIdle() || channels.Open(SocketPair().near, 1, {}));
}

// Replies with as many bytes as the request's code says; serves no code below 4.
struct Sized : RequestHandler {
    explicit Sized(int& itsFrames) : frames(itsFrames) {}
    void OnLastReplyRead() override { ++frames; }
    bool Answer(MessageParcel&, const FrameHeader& header, MessageParcel& reply) override
    {
        const std::string frame = FrameOf(REPLY, header.code);
        return ParcelAccess::ReserveTotal(reply, header.code) && header.code >= 4 &&
               std::ranges::copy(frame, ParcelAccess::Storage(reply)).in == frame.end();
    }
    int& frames;
};

class ServerChannelTest : public IpcParts {
protected:
    std::deque<ConnectionCounts> counts_;  // outlive the channels
    ServerChannels channels_{workers_, reactor_, budget_};
};

TEST_F(ServerChannelTest, ServesUntilAFrameIsNoneOrIsWaitedForTooLong)
{
    FrameHeader request = MakeHeader(REQUEST);
    request.code = 8;
    const std::string small = Bytes(request);
    request.code = 4'000'000;
    const std::string ack = FrameOf(REPLY_ACK);
    // The bytes that come, how many frames are taken, how many of them are answered, and when the channel ends.
    enum End { AT_ONCE, AFTER_8S, NEVER };
    const std::tuple<const char*, std::string, int, size_t, End> rows[] = {
        {"nothing", "", 0, 0, NEVER},
        {"requests", small + small, 2, 2, NEVER},
        {"an acknowledgement between them", small + ack + small, 3, 2, NEVER},
        {"an acknowledgement with data", small + FrameOf(REPLY_ACK, 4) + small, 2, 1, AT_ONCE},
        {"a reply", FrameOf(REPLY), 1, 0, AT_ONCE},
        {"one that is served no more", FrameOf(REQUEST), 1, 0, AT_ONCE},
        {"no frame", std::string(64, 'x'), 0, 0, AT_ONCE},
        {"the end behind an acknowledgement", small + ack, 2, 1, AT_ONCE},
        {"half of a request", small + small.substr(1), 1, 1, AFTER_8S},
        {"a reply that is not read", Bytes(request), 1, 0, AFTER_8S},
        {"requests where others have failed", small + small, 2, 2, NEVER},
    };
    for (const auto& [name, bytes, frames, replies, end] : rows) {
        SocketPair ends;
        ConnectionCounts& counts = counts_.emplace_back([] { return 2; });  // one for a user
        int taken = 0;
        const Deadline before = Now();
        const auto connection = [&] { return Connection{std::move(ends.near), {1, 7}, counts.Take({1, 7})}; };
        channels_.Adopt(connection, std::make_unique<Sized>(taken), FrameReader());
        Write(ends.far, bytes);
        if (std::string(name).starts_with("the end")) {
            shutdown(ends.far.Get(), SHUT_WR);
        }
        workers_.RunTasks();
        EXPECT_EQ(taken, frames) << name;
        for (const Deadline since : {Deadline(), before, Now() + 1ms}) {
            channels_.CloseStalled(since + 8s);
            const bool hasEnded = counts.Take({1, 7}) != nullptr;
            EXPECT_EQ(hasEnded, end == AT_ONCE || (end == AFTER_8S && since > before)) << name;
        }
        const std::string expected = Times(replies, FrameOf(REPLY, 8)) + (end == NEVER ? "" : "END");
        const std::string replied = Heard(ends.far);
        EXPECT_TRUE(replied == expected || (taken == 1 && replied.ends_with("END"))) << name;
    }
}

// A frame of 16 MiB for which its process has no room waits; such a reply is not kept.
TEST_F(ServerChannelTest, HoldsFourLargeFramesOfAProcess)
{
    ConnectionCounts& counts = counts_.emplace_back([] { return SIZE_MAX; });
    FrameHeader small = MakeHeader(REQUEST);
    small.code = 8;
    FrameHeader reply = small;
    reply.code = 16'000'000;
    const std::string half = FrameOf(REQUEST, 16777184).substr(0, 8000);
    std::vector<SocketPair> pairs(12);
    int taken = 0;
    const auto ended = [&] {
        channels_.CloseStalled(Now() + 9s);
        std::string names;
        for (size_t i = 0; i < pairs.size(); ++i) {
            names += pairs[i].far && HasEnded(pairs[i].far) ? static_cast<char>('a' + i) : '-';
        }
        return names;
    };
    for (size_t i = 0; i < pairs.size(); ++i) {
        const Credentials who{i == 10 ? 2 : 1, 7};
        const auto connection = [&] { return Connection{std::move(pairs[i].near), who, counts.Take(who)}; };
        channels_.Adopt(connection, std::make_unique<Sized>(taken), FrameReader());
        Write(pairs[i].far, i == 5 ? Bytes(small) : i > 10 ? Bytes(reply) : half);
        workers_.RunTasks();
    }
    EXPECT_EQ(ended(), "abcd------kl") << "the others wait unread; there is no room for the reply";
    EXPECT_EQ(ended(), "abcd------kl") << "and do not stall";
    workers_.RunTasks();
    EXPECT_EQ(ended(), "abcde-ghi-kl");
    workers_.RunTasks();
    EXPECT_EQ(ended(), "abcde-ghijkl");
    EXPECT_EQ(taken, 2);
}

}  // namespace
}  // namespace VEXA::ipc
