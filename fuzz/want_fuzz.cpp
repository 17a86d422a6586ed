// SPDX-License-Identifier: Apache-2.0
// Reads arbitrary bytes as a want. One that is accepted must survive being written and read again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "parcel_access.h"
#include "vexa/ipc/parcel.h"
#include "vexa/want/want.h"

namespace {

using AAFwk::Want;
using VEXA::Parcel;
using VEXA::ParcelAccess;

std::unique_ptr<Want> Read(const void* bytes, size_t size)
{
    Parcel parcel;
    if (!ParcelAccess::ReserveTotal(parcel, size)) {
        std::abort();
    }
    if (size > 0) {
        std::memcpy(ParcelAccess::Data(parcel), bytes, size);
    }
    ParcelAccess::SetSize(parcel, size);
    return std::unique_ptr<Want>(Want::Unmarshalling(parcel));
}

// Bytes are compared, not wants: a parameter may be a number that differs from itself.
std::string Write(const Want& want)
{
    Parcel parcel;
    if (!want.Marshalling(parcel)) {
        std::abort();
    }
    return {reinterpret_cast<const char*>(ParcelAccess::Data(parcel)), parcel.GetDataSize()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size)
{
    const auto want = Read(input, size);
    if (want == nullptr) {
        return 0;
    }
    const std::string bytes = Write(*want);
    const auto again = Read(bytes.data(), bytes.size());
    if (again == nullptr || Write(*again) != bytes) {
        std::abort();
    }
    return 0;
}
