// SPDX-License-Identifier: Apache-2.0
// The negative results of IRemoteObject::SendRequest: the transport's own, each named for what the caller may do next.
// 0 is success; a positive result is what the object's OnRemoteRequest returned.
#pragma once

#include <cstdint>

namespace VEXA {

enum IpcError : int32_t {
    IPC_OK = 0,
    // A reason without a code of its own: an object can't be passed on, memory is short, or the reply's objects are not
    // what they claim. Unless the request could not be sent, it may have been carried out.
    IPC_FAILED = -1,
    // The object's process has ended. Look the object up again.
    IPC_DEAD_OBJECT = -2,
    // No answer within the wait time. The request may or may not have been carried out.
    IPC_TIMED_OUT = -3,
    // The request is larger than a frame may be, or carries too many objects. It was not sent.
    IPC_TOO_LARGE = -4,
    // The object's process does not know this process as a holder of the object, or of one that the request carries.
    IPC_REFUSED = -5,
    // The queue of one-way requests to that process is full. Try again later.
    IPC_QUEUE_FULL = -6,
    // This process is a fork's child, which has no connections of its own.
    IPC_FORKED = -7,
    // The request reached the object, and its handler ended by an exception.
    IPC_HANDLER_THREW = -8,
    // No connection could be made, or it ended before a sound reply came, while the object's process lives on. The
    // request may or may not have been carried out.
    IPC_CONNECTION_LOST = -9,
    // This process is leaving: exit handlers run, and it has ended its connections.
    IPC_EXITING = -10,
};

// Largest parcel, and largest data of a frame on the wire, in bytes.
inline constexpr uint32_t IPC_MAX_PARCEL_BYTES = 16U * 1024 * 1024;
// Most remote objects in one parcel.
inline constexpr uint32_t IPC_MAX_PARCEL_OBJECTS = 256;

// The answer of IPCObjectStub::OnRemoteRequest to a request code that the object does not know.
inline constexpr int32_t IPC_UNKNOWN_REQUEST = 400;

}  // namespace VEXA
