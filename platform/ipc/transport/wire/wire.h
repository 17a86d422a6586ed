// SPDX-License-Identifier: Apache-2.0
// The layout of all that travels between two processes, byte by byte. docs/wire-format.md explains it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "vexa/ipc/ipc_errors.h"

namespace VEXA::ipc {

static_assert(std::endian::native == std::endian::little, "frames are little-endian and copied as they are");

// Names one process while it lives: a random number, never 0, made anew by each process.
using EndpointId = uint64_t;
// Names an object within its own process.
using ObjectId = uint64_t;

// The object that every process may call without having been handed it: the manager's.
inline constexpr ObjectId kContextObject = 0;

enum class FrameKind : uint16_t {
    HELLO = 1,          // first frame of a connection, from the process that connects
    HELLO_REPLY = 2,    // first frame back on a link: it may become the session
    REQUEST = 3,        // channel: asks for one REPLY; `extra` numbers the sender's requests
    REPLY = 4,          // channel; `extra` repeats the request's
    REPLY_ACK = 5,      // channel: the objects of the last reply have arrived
    ONE_WAY = 6,        // link: a request without reply, numbered like a REQUEST
    ONE_WAY_ACK = 7,    // link: `target` frames with `extra` bytes are done
    RELEASE = 8,        // link: the sender gives up `extra` references to `target`, which the receiver owns
    GRANT = 9,          // link: `extra` is a process that receives `target`, which the receiver owns, from the sender
    UNGRANT = 10,       // link: takes back one GRANT that the sender gave on this link
    KEY = 11,           // link: the key for channels, once the process that connected knows whom it has reached
    REFUSAL = 12,       // link: in place of HELLO_REPLY; `code` is a Refusal
    CLOSE_IDLE = 13,    // link: connections are few, so that the receiver is to close channels that it keeps for later
    ONE_WAY_WANT = 14,  // link: the sender has one-way requests that exceed the receiver's window by `extra`
    ONE_WAY_WINDOW = 15,  // link: the window is wider by `extra`
};

struct FrameHeader {
    uint32_t magic;
    FrameKind kind;
    uint16_t objects;  // entries of the object table that follows the data
    uint32_t bytes;    // of data, without header and object table
    uint32_t code;     // REQUEST and ONE_WAY: the request code; REPLY: the result; REFUSAL: the reason
    uint64_t target;   // the object that the frame is about
    uint64_t extra;
};
inline constexpr size_t kHeaderBytes = 32;
static_assert(sizeof(FrameHeader) == kHeaderBytes && std::is_trivially_copyable_v<FrameHeader>);

// Names one remote object of a parcel.
struct ObjectEntry {
    EndpointId owner;
    ObjectId id;
    bool operator==(const ObjectEntry&) const = default;
};
static_assert(sizeof(ObjectEntry) == 16);

// A secret that one process hands another over a link. The other shows it when it opens a channel.
struct ChannelKey {
    uint64_t high = 0;
    uint64_t low = 0;
    bool operator==(const ChannelKey& other) const { return ((high ^ other.high) | (low ^ other.low)) == 0; }
};

enum class ConnectionUse : uint32_t { LINK = 1, CHANNEL = 2 };

// Why a HELLO is not answered.
enum class Refusal : uint32_t {
    STANDS = 1,   // the two processes have a session
    VERSION = 2,  // the sender speaks another version
    DEAD = 3,     // the sender is remembered as dead
};

// The data of HELLO, HELLO_REPLY, KEY and REFUSAL. Every version begins with these two numbers.
struct HelloBody {
    uint32_t version;
    ConnectionUse use;
    EndpointId sender;
    // HELLO of a channel: the key that the receiver has issued to the sender. HELLO of a link: none. HELLO_REPLY and
    // KEY: the key that the sender issues to the receiver.
    ChannelKey key;
};
static_assert(sizeof(HelloBody) == 32);

inline constexpr uint32_t kMagic = 0x31465856;  // "VXF1"
inline constexpr uint32_t kWireVersion = 2;

inline FrameHeader MakeHeader(FrameKind kind, ObjectId target = 0, uint64_t extra = 0)
{
    return FrameHeader{kMagic, kind, 0, 0, 0, target, extra};
}

// A whole frame by which `sender` introduces itself: HELLO, HELLO_REPLY, KEY or REFUSAL.
struct HelloFrame {
    FrameHeader header;
    HelloBody body;
};
inline HelloFrame MakeHello(FrameKind kind, ConnectionUse use, EndpointId sender, const ChannelKey& key = ChannelKey())
{
    HelloFrame hello{MakeHeader(kind), {kWireVersion, use, sender, key}};
    hello.header.bytes = sizeof(HelloBody);
    return hello;
}
inline HelloFrame MakeRefusal(Refusal reason, EndpointId sender)
{
    HelloFrame refusal = MakeHello(FrameKind::REFUSAL, ConnectionUse::LINK, sender);
    refusal.header.code = static_cast<uint32_t>(reason);
    return refusal;
}

// True when a header may be believed. Before that nothing else of a frame is looked at, or allocated for.
inline bool IsSound(const FrameHeader& header)
{
    return header.magic == kMagic && header.kind >= FrameKind::HELLO && header.kind <= FrameKind::ONE_WAY_WINDOW &&
           header.bytes <= IPC_MAX_PARCEL_BYTES && header.bytes % 4 == 0 && header.objects <= IPC_MAX_PARCEL_OBJECTS;
}

inline size_t BodyBytes(const FrameHeader& header)
{
    return size_t{header.bytes} + header.objects * sizeof(ObjectEntry);
}

}  // namespace VEXA::ipc
