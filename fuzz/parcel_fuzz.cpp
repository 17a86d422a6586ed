// SPDX-License-Identifier: Apache-2.0
// Reads arbitrary bytes with arbitrary readers. Input: a count, as many reader numbers, then the parcel.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "parcel_access.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_parcel.h"

namespace {

using VEXA::MessageParcel;
using VEXA::ParcelAccess;

void Require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

// Reads one value; what was read is written again and must read back the same.
template <typename T>
void Echo(MessageParcel& parcel, bool (VEXA::Parcel::*read)(T&), bool (VEXA::Parcel::*write)(const T&))
{
    const size_t start = parcel.GetReadPosition();
    T value{};
    if (!(parcel.*read)(value)) {
        Require(parcel.GetReadPosition() == start);
        return;
    }
    MessageParcel again;
    T echoed{};
    Require((again.*write)(value));
    Require(again.GetDataSize() == parcel.GetReadPosition() - start);
    Require((again.*read)(echoed) && echoed == value);
}

void ReadOne(MessageParcel& parcel, uint8_t reader)
{
    switch (reader % 8) {
        case 0:
            parcel.ReadBool();
            break;
        case 1:
            parcel.ReadInt32();
            break;
        case 2:
            parcel.ReadUint64();
            break;
        case 3:
            parcel.ReadDouble();
            break;
        case 4:
            Echo(parcel, &VEXA::Parcel::ReadString, &VEXA::Parcel::WriteString);
            break;
        case 5:
            Echo(parcel, &VEXA::Parcel::ReadString16, &VEXA::Parcel::WriteString16);
            break;
        case 6:
            parcel.ReadRemoteObject();
            break;
        default:
            parcel.ReadInterfaceToken();
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size)
{
    if (size == 0 || size - 1 < input[0]) {
        return 0;
    }
    const size_t readers = input[0];
    const uint8_t* const bytes = input + 1 + readers;
    const size_t count = size - 1 - readers;
    MessageParcel parcel;
    Require(ParcelAccess::ReserveTotal(parcel, count));
    if (count > 0) {
        std::memcpy(ParcelAccess::Data(parcel), bytes, count);
    }
    ParcelAccess::SetSize(parcel, count);
    ParcelAccess::Objects(parcel).assign(3, VEXA::sptr<VEXA::IRemoteObject>(new VEXA::IPCObjectStub));
    for (size_t i = 0; i < readers; ++i) {
        const size_t start = parcel.GetReadPosition();
        ReadOne(parcel, input[1 + i]);
        const size_t end = parcel.GetReadPosition();
        Require(start <= end && end <= count && end % 4 == 0);
    }
    return 0;
}
