// SPDX-License-Identifier: Apache-2.0
// Puts frames together from a socket that never makes its reader wait.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "transport/limits.h"
#include "vexa/ipc/message_parcel.h"
#include "wire.h"

namespace VEXA::ipc {

FrameHeader HeaderOf(Parcel& frame);
void SetHeader(Parcel& frame, const FrameHeader& header);

// A frame lies in a parcel: its header in the headroom, its data as the parcel's, its object table behind the data.
// A small frame is received by one call into the parcel that the caller brings; a larger one is collected in a parcel
// of the reader's own, which grows only with the bytes that have really arrived.
class FrameReader {
public:
    enum class Result {
        FRAME,     // `frame` points to a complete frame
        PARTIAL,   // there is nothing more to read now
        LARGE,     // a frame larger than kGrowthStep has begun; the next Read goes on with it
        END,       // the peer has closed the connection
        MALFORMED  // the peer has sent something that is no frame, or the connection failed
    };

    // Reads the next frame. `frame` is `scratch`, or a parcel that belongs to the reader until Done. Throws
    // std::bad_alloc where memory is short; nothing is lost, and the next Read goes on.
    Result Read(int fd, MessageParcel& scratch, MessageParcel*& frame);
    // Says that the frame of the last Read has been dealt with.
    void Done() { collected_.reset(); }
    // Hands over the frame of the last Read where it is in the reader's own parcel.
    std::unique_ptr<MessageParcel> TakeOwn() { return std::move(collected_); }

    // True when a part of a frame has arrived and its rest has not.
    bool InFrame() const { return collected_ != nullptr; }
    // Gives the header of that frame; false when not even the header is whole.
    bool HasHeader(FrameHeader& header) const;
    // Counts all bytes that have been received.
    uint64_t Received() const { return received_; }
    // True when bytes that have been received are yet to be looked at.
    bool HasAhead() const { return aheadBytes_ > 0; }
    // Takes over what another reader, which is between two frames, has received beyond its last frame.
    void TakeAheadOf(const FrameReader& other);
    // Forgets what has been received.
    void Reset()
    {
        Done();
        aheadBytes_ = 0;
    }

private:
    Result Collect(int fd, MessageParcel*& frame);

    std::unique_ptr<MessageParcel> collected_;
    bool hasTold_ = false;  // of a large frame
    size_t have_ = 0;       // bytes in collected_, if there is one, header included
    uint64_t received_ = 0;
    size_t aheadBytes_ = 0;
    uint8_t ahead_[kFirstRead];  // received with the last frame, but behind it
};

}  // namespace VEXA::ipc
