// SPDX-License-Identifier: Apache-2.0
#include "frame_reader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "parcel_access.h"
#include "socket.h"

namespace VEXA::ipc {
namespace {

FrameReader::Result ResultOf(Transfer failed)
{
    return failed == Transfer::WOULD_BLOCK ? FrameReader::Result::PARTIAL
           : failed == Transfer::END       ? FrameReader::Result::END
                                           : FrameReader::Result::MALFORMED;
}

}  // namespace

FrameHeader HeaderOf(Parcel& frame)
{
    FrameHeader header;
    std::memcpy(&header, ParcelAccess::Storage(frame), sizeof(header));
    return header;
}

void SetHeader(Parcel& frame, const FrameHeader& header)
{
    std::memcpy(ParcelAccess::Storage(frame), &header, sizeof(header));
}

FrameReader::Result FrameReader::Read(int fd, MessageParcel& scratch, MessageParcel*& frame)
{
    if (collected_ != nullptr) {
        return Collect(fd, frame);
    }
    uint8_t* const storage = ParcelAccess::Storage(scratch);
    size_t have = aheadBytes_;
    if (have > 0) {
        std::memcpy(storage, ahead_, have);
    } else {
        const Transfer result = ReceiveNow(fd, storage, kFirstRead, have);
        received_ += have;
        if (result != Transfer::DONE) {
            return ResultOf(result);
        }
    }
    if (have >= kHeaderBytes) {
        const FrameHeader header = HeaderOf(scratch);
        const size_t total = kHeaderBytes + BodyBytes(header);
        if (IsSound(header) && have >= total) {
            aheadBytes_ = have - total;
            std::memcpy(ahead_, storage + total, aheadBytes_);
            ParcelAccess::SetSize(scratch, header.bytes);
            frame = &scratch;
            return Result::FRAME;
        }
    }
    // Kept here in case there is no memory.
    std::memcpy(ahead_, storage, have);
    aheadBytes_ = have;
    collected_ = std::make_unique<MessageParcel>();
    aheadBytes_ = 0;
    have_ = have;
    hasTold_ = false;
    std::memcpy(ParcelAccess::Storage(*collected_), storage, have);
    return Collect(fd, frame);
}

FrameReader::Result FrameReader::Collect(int fd, MessageParcel*& frame)
{
    for (;;) {
        size_t total = kHeaderBytes;
        if (have_ >= kHeaderBytes) {
            const FrameHeader header = HeaderOf(*collected_);
            if (!IsSound(header)) {
                return Result::MALFORMED;
            }
            total += BodyBytes(header);
            if (have_ == total) {
                ParcelAccess::SetSize(*collected_, header.bytes);
                frame = collected_.get();
                return Result::FRAME;
            }
            if (total > kGrowthStep && !std::exchange(hasTold_, true)) {
                return Result::LARGE;
            }
        }
        // Makes room for what the header announces, but never for more than as much again as has come so far.
        const size_t room = std::min(total, std::max(2 * have_, kGrowthStep));
        if (!ParcelAccess::ReserveTotal(*collected_, room - kHeaderBytes)) {
            throw std::bad_alloc();
        }
        size_t moved = 0;
        const Transfer result = ReceiveNow(fd, ParcelAccess::Storage(*collected_) + have_, room - have_, moved);
        have_ += moved;
        received_ += moved;
        if (result != Transfer::DONE) {
            return ResultOf(result);
        }
    }
}

bool FrameReader::HasHeader(FrameHeader& header) const
{
    if (collected_ == nullptr || have_ < kHeaderBytes) {
        return false;
    }
    header = HeaderOf(*collected_);
    return true;
}

void FrameReader::TakeAheadOf(const FrameReader& other)
{
    aheadBytes_ = other.aheadBytes_;
    std::memcpy(ahead_, other.ahead_, aheadBytes_);
}

}  // namespace VEXA::ipc
