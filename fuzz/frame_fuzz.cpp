// SPDX-License-Identifier: Apache-2.0
// Reads arbitrary bytes as a stream of frames, cut where the first byte says.
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "frame_reader.h"
#include "parcel_access.h"
#include "socket.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    using namespace VEXA;
    using namespace VEXA::ipc;
    int ends[2];
    if (size == 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return 0;
    }
    const auto in = ipc::UniqueFd::Make([&] { return ends[0]; });
    auto out = ipc::UniqueFd::Make([&] { return ends[1]; });
    const size_t step = 1 + *bytes++;
    --size;
    FrameReader reader;
    for (size_t at = 0; at < size; at += step) {
        size_t moved = 0;
        SendNow(out.Get(), bytes + at, std::min(step, size - at), moved);
        for (;;) {
            MessageParcel scratch;
            MessageParcel* frame = nullptr;
            const FrameReader::Result result = reader.Read(in.Get(), scratch, frame);
            if (result == FrameReader::Result::MALFORMED) {
                return 0;
            }
            if (result == FrameReader::Result::LARGE) {
                continue;
            }
            if (result != FrameReader::Result::FRAME) {
                break;
            }
            const FrameHeader header = HeaderOf(*frame);
            if (!IsSound(header) || frame->GetDataSize() != header.bytes) {
                std::abort();
            }
            // All that the header announces has been received.
            const uint8_t* const data = ParcelAccess::Data(*frame);
            volatile uint8_t last = 0;
            for (size_t i = 0; i < BodyBytes(header); ++i) {
                last = data[i];
            }
            (void)last;
            reader.Done();
        }
    }
    return 0;
}
