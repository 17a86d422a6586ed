// SPDX-License-Identifier: Apache-2.0
// The negative results of IRemoteObject::SendRequest: the transport's own, each named for what the caller may do next.
// 0 is success; a positive result is what the object's OnRemoteRequest returned.
#pragma once

#include <cstdint>

namespace VEXA {

enum IpcError : int32_t {
    IPC_OK = 0,
    // The request was not sent, for a reason that has no code of its own (a local fault; the log says which).
    IPC_FAILED = -1,
    // The object's process has ended. Look the object up again.
    IPC_DEAD_OBJECT = -2,
    // No answer within the wait time. The request may or may not have been carried out.
    IPC_TIMED_OUT = -3,
    // The request or its reply is larger than a frame may be, or carries too many objects. Nothing was carried out
    // when it is the request.
    IPC_TOO_LARGE = -4,
    // The object's process does not know this process as a holder of the object.
    IPC_REFUSED = -5,
    // The queue of one-way requests to that process is full. Try again later.
    IPC_QUEUE_FULL = -6,
    // This process is a fork's child, which has no connections of its own.
    IPC_FORKED = -7,
    // The request reached the object, and its handler ended by an exception.
    IPC_HANDLER_THREW = -8,
    // The connection ended before the reply came, while the object's process lives on.
    IPC_CONNECTION_LOST = -9,
};

// Largest parcel, and largest frame on the wire, in bytes.
inline constexpr uint32_t IPC_MAX_PARCEL_BYTES = 16U * 1024 * 1024;
// Most remote objects in one parcel.
inline constexpr uint32_t IPC_MAX_PARCEL_OBJECTS = 256;

// What IPCObjectStub::OnRemoteRequest answers to a request code that the object does not know.
inline constexpr int32_t IPC_UNKNOWN_REQUEST = 400;

}  // namespace VEXA
