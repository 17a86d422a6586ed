// SPDX-License-Identifier: Apache-2.0
// Frames as bytes, however they arrive; and the counts behind the objects that they carry.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <initializer_list>
#include <string>
#include <thread>

#include "client_channel.h"
#include "frame_reader.h"
#include "object_table.h"
#include "parcel_access.h"
#include "socket.h"
#include "support/processes.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::ipc {
namespace {

using Result = FrameReader::Result;

// The worked example of docs/wire-format.md.
const std::string GOLDEN_REQUEST(
    "VXF1\x03\0\0\0\x0C\0\0\0\x05\0\0\0"
    "\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
    "\x01\0\0\0T\0\0\0\x07\0\0\0",
    44);

class FrameStream : public testing::Test {
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        in_ = UniqueFd::Make([&] { return ends[0]; });
        out_ = UniqueFd::Make([&] { return ends[1]; });
    }
    void Write(const std::string& bytes)
    {
        size_t moved = 0;
        ASSERT_EQ(SendNow(out_.Get(), bytes.data(), bytes.size(), moved), Transfer::DONE);
        ASSERT_EQ(moved, bytes.size());
    }
    Result Read()
    {
        MessageParcel scratch;
        MessageParcel* frame = nullptr;
        const Result result = reader_.Read(in_.Get(), scratch, frame);
        if (result == Result::FRAME) {
            header_ = HeaderOf(*frame);
            data_.assign(reinterpret_cast<const char*>(ParcelAccess::Data(*frame)), frame->GetDataSize());
            reader_.Done();
        }
        return result;
    }

    UniqueFd in_;
    UniqueFd out_;
    FrameReader reader_;
    FrameHeader header_{};  // of the frame that was read last, and its data
    std::string data_;
};

std::string FrameOf(FrameHeader header, size_t dataBytes)
{
    header.bytes = static_cast<uint32_t>(dataBytes);
    std::string frame(reinterpret_cast<const char*>(&header), sizeof(header));
    for (size_t i = 0; i < dataBytes; ++i) {
        frame.push_back(static_cast<char>(i * 31));
    }
    return frame;
}

TEST_F(FrameStream, BytesAreThoseOfTheDocument)
{
    MessageParcel parcel;
    parcel.WriteInterfaceToken(u"T");
    parcel.WriteInt32(7);
    FrameHeader header = MakeHeader(FrameKind::REQUEST, 1);
    header.code = 5;
    header.bytes = static_cast<uint32_t>(parcel.GetDataSize());
    SetHeader(parcel, header);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char*>(ParcelAccess::Storage(parcel)), kHeaderBytes + parcel.GetDataSize()),
        GOLDEN_REQUEST);
}

TEST_F(FrameStream, FramesComeTogetherFromAnyPieces)
{
    for (const size_t dataBytes : std::initializer_list<size_t>{0, 4, 476, 480, 484, 5000}) {
        const std::string frame = FrameOf(MakeHeader(FrameKind::ONE_WAY, 3), dataBytes);
        const size_t step = dataBytes > 1000 ? 97 : 1;
        for (size_t cut = 1; cut < frame.size(); cut += step) {
            Write(frame.substr(0, cut));
            ASSERT_EQ(Read(), Result::PARTIAL) << dataBytes << " cut at " << cut;
            Write(frame.substr(cut) + frame + GOLDEN_REQUEST);
            for (int whole = 0; whole < 2; ++whole) {
                ASSERT_EQ(Read(), Result::FRAME) << dataBytes << " cut at " << cut;
                ASSERT_EQ(data_, frame.substr(kHeaderBytes));
            }
            ASSERT_EQ(Read(), Result::FRAME);
            ASSERT_EQ(header_.code, 5U);
            ASSERT_EQ(Read(), Result::PARTIAL);
        }
    }
    out_.Reset();
    EXPECT_EQ(Read(), Result::END);
}

TEST_F(FrameStream, LyingHeadersAreRefusedBeforeAnythingIsAllocated)
{
    const std::pair<const char*, void (*)(FrameHeader&)> lies[] = {
        {"magic", [](FrameHeader& header) { header.magic = 0; }},
        {"kind 0", [](FrameHeader& header) { header.kind = FrameKind(0); }},
        {"kind beyond the last", [](FrameHeader& header) { header.kind = FrameKind(12); }},
        {"size beyond the limit", [](FrameHeader& header) { header.bytes = IPC_MAX_PARCEL_BYTES + 4; }},
        {"odd size", [](FrameHeader& header) { header.bytes = 6; }},
        {"257 objects", [](FrameHeader& header) { header.objects = 257; }},
    };
    for (const auto& [name, lie] : lies) {
        SetUp();
        reader_.Reset();
        FrameHeader header = MakeHeader(FrameKind::REQUEST, 1);
        lie(header);
        Write(std::string(reinterpret_cast<const char*>(&header), sizeof(header)));
        EXPECT_EQ(Read(), Result::MALFORMED) << name;
    }
}

// A process that was stopped finds an answer there, and its own time past.
TEST(SocketTest, WhatHasComeCountsAfterTheDeadline)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd in = UniqueFd::Make([&] { return ends[0]; });
    const UniqueFd out = UniqueFd::Make([&] { return ends[1]; });
    size_t moved = 0;
    for (const char* piece : {"one", "two"}) {
        ASSERT_EQ(SendNow(out.Get(), piece, 3, moved), Transfer::DONE);
    }
    const Deadline past = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    char text[7] = {};
    EXPECT_EQ(ReceiveAtLeast(in.Get(), text, 6, 6, past, moved), Transfer::DONE);
    EXPECT_STREQ(text, "onetwo");
    ASSERT_EQ(SendNow(out.Get(), "end", 3, moved), Transfer::DONE);
    EXPECT_EQ(ReceiveAtLeast(in.Get(), text, 6, 6, past, moved), Transfer::WOULD_BLOCK);
}

// Whether the deadline has passed before the request has left, or half of the reply comes just before it.
TEST(ClientChannelTest, NoReplyIsWaitedForBeyondTheDeadline)
{
    using namespace std::chrono_literals;
    for (const std::chrono::milliseconds limit : {-10ms, 600ms}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        ClientChannel channel(UniqueFd::Make([&] { return ends[0]; }));
        const UniqueFd service = UniqueFd::Make([&] { return ends[1]; });
        std::thread answering([&] {
            std::this_thread::sleep_for(limit - 100ms);
            FrameHeader half = MakeHeader(FrameKind::REPLY);
            half.bytes = 4096;
            size_t moved = 0;
            if (limit > 0ms) {
                SendNow(service.Get(), &half, sizeof(half), moved);
            }
        });
        MessageParcel request;
        MessageParcel reply;
        SetHeader(request, MakeHeader(FrameKind::REQUEST, 1));
        ClientChannel::Reached reached{};
        const Deadline start = std::chrono::steady_clock::now();
        EXPECT_EQ(channel.Exchange(request, kHeaderBytes, reply, start + limit, reached), IPC_TIMED_OUT);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
        answering.join();
    }
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
    const Deadline start = std::chrono::steady_clock::now();
    EXPECT_FALSE(ConnectTo(path));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
}

TEST(ObjectTableTest, LivesByItsHoldersAndNotByTheirDebts)
{
    constexpr EndpointId GIVER = 1;
    constexpr EndpointId TAKER = 2;
    ObjectTable table;
    sptr<IRemoteObject> object(new IPCObjectStub);
    const ObjectId id = table.AddHolder(object, GIVER);
    EXPECT_EQ(table.AddHolder(object, GIVER), id);
    EXPECT_EQ(table.Find(id, TAKER), nullptr);

    // A release overtakes the grant that it answers.
    for (const int32_t count : {-1, 1, 1}) {
        EXPECT_EQ(table.Find(id, TAKER), nullptr);
        EXPECT_EQ(table.Adjust(id, TAKER, count), nullptr);
    }
    EXPECT_EQ(table.Find(id, TAKER), object);

    EXPECT_EQ(table.Adjust(id, GIVER, -2), nullptr);
    EXPECT_EQ(table.Find(id, TAKER), object);
    // A debt of a third keeps nothing alive, and goes with the object.
    EXPECT_EQ(table.Adjust(id, 3, -1), nullptr);
    EXPECT_EQ(table.Adjust(id, TAKER, -1), object);
    EXPECT_EQ(table.Size(), 0U);
    EXPECT_TRUE(table.DropHolder(3).empty());

    const ObjectId again = table.AddHolder(object, TAKER);
    EXPECT_NE(again, id) << "a number is never used again";
    EXPECT_EQ(table.DropHolder(TAKER), std::vector<sptr<IRemoteObject>>{object});
    EXPECT_EQ(table.Size(), 0U);
}

}  // namespace
}  // namespace VEXA::ipc
