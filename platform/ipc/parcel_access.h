// SPDX-License-Identifier: Apache-2.0
// Lets the transport fill a parcel's storage from a socket, and send straight out of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vexa/ipc/message_parcel.h"
#include "vexa/ipc/parcel.h"

namespace VEXA {

class ParcelAccess {
public:
    // The number of bytes kept in front of the data.
    static constexpr size_t kHeadroom = Parcel::kHeadroom;

    // Points to the headroom, which the data follow. Any growth of the parcel moves it.
    static uint8_t* Storage(Parcel& parcel) { return parcel.storage_; }
    static uint8_t* Data(Parcel& parcel) { return parcel.storage_ + Parcel::kHeadroom; }
    static const uint8_t* Data(const Parcel& parcel) { return parcel.storage_ + Parcel::kHeadroom; }
    static size_t Capacity(const Parcel& parcel) { return parcel.capacity_; }

    // Makes the capacity at least `dataBytes`, beyond the parcel's limit too, and keeps the headroom and everything up
    // to the old capacity. False when memory is short.
    static bool ReserveTotal(Parcel& parcel, size_t dataBytes)
    {
        return dataBytes <= parcel.capacity_ || parcel.Reserve(dataBytes);
    }
    // Says that the first `bytes` (at most the capacity) have been received, and rewinds.
    static void SetSize(Parcel& parcel, size_t bytes)
    {
        parcel.size_ = bytes;
        parcel.position_ = 0;
    }
    // Goes on reading at `position`, a value returned by GetReadPosition.
    static void SetReadPosition(Parcel& parcel, size_t position) { parcel.position_ = position; }
    // Makes the parcel empty. Storage beyond kKeptBytes is given back.
    static void Clear(Parcel& parcel);
    static void Clear(MessageParcel& parcel);

    static std::vector<sptr<IRemoteObject>>& Objects(MessageParcel& parcel) { return parcel.objects_; }

    // Makes room for `bytes` right behind the data, whose size stays as it is; null when memory is short.
    static uint8_t* AppendRaw(Parcel& parcel, size_t bytes)
    {
        return ReserveTotal(parcel, parcel.size_ + bytes) ? Data(parcel) + parcel.size_ : nullptr;
    }

private:
    static constexpr size_t kKeptBytes = size_t{64} * 1024;
};

}  // namespace VEXA
