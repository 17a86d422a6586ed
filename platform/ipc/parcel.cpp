// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/parcel.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "parcel_access.h"
#include "transport/limits.h"
#include "vexa/ipc/parcel_limit.h"

namespace VEXA {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "values are copied as the machine holds them");

constexpr size_t kAlignment = 4;

thread_local size_t t_limit = IPC_MAX_PARCEL_BYTES;

// A long block that a parcel has given back, for the next one that needs so much: fresh memory, which the kernel clears
// page by page, costs more than the copy of a long text into it. The block begins with its length.
std::atomic<uint8_t*> g_keptBlock{nullptr};

// Takes the kept block, and tells its length, where it has the `bytes`; else null.
uint8_t* TakeKeptBlock(size_t& bytes)
{
    uint8_t* const block = bytes >= ipc::kLeastKeptBlock ? g_keptBlock.exchange(nullptr) : nullptr;
    size_t length = 0;
    if (block != nullptr) {
        std::memcpy(&length, block, sizeof(length));
    }
    if (length < bytes) {
        std::free(block);
        return nullptr;
    }
    bytes = length;
    return block;
}

void KeepOrFree(uint8_t* block, size_t bytes)
{
    if (bytes >= ipc::kLeastKeptBlock && bytes <= ipc::kMostKeptBlock) {
        std::memcpy(block, &bytes, sizeof(bytes));
        block = g_keptBlock.exchange(block);
    }
    std::free(block);
}

template <typename N>
constexpr N Padded(N bytes)
{
    return (bytes + (kAlignment - 1)) & ~N{kAlignment - 1};
}

}  // namespace

size_t SetThreadParcelLimit(size_t bytes)
{
    const size_t previous = t_limit;
    t_limit = std::min<size_t>(bytes, IPC_MAX_PARCEL_BYTES);
    return previous;
}

// The inline storage stays uninitialised: every request makes two parcels, and most fill a tenth of it.
Parcel::Parcel() : storage_(inline_), limit_(t_limit) {}

Parcel::~Parcel()
{
    if (storage_ != inline_) {
        KeepOrFree(storage_, kHeadroom + capacity_);
    }
}

bool Parcel::Reserve(size_t bytes)
{
    size_t total = kHeadroom + std::max(bytes, capacity_ * 2);
    const bool isInline = storage_ == inline_;
    uint8_t* const kept = TakeKeptBlock(total);
    auto* const grown =
        kept != nullptr ? kept : static_cast<uint8_t*>(std::realloc(isInline ? nullptr : storage_, total));
    if (grown == nullptr) {
        return false;
    }
    if (kept != nullptr || isInline) {
        std::memcpy(grown, storage_, kHeadroom + capacity_);
    }
    if (kept != nullptr && !isInline) {
        std::free(storage_);
    }
    storage_ = grown;
    capacity_ = total - kHeadroom;
    return true;
}

inline uint8_t* Parcel::Append(size_t bytes)
{
    const size_t end = size_ + bytes;
    if (end > limit_ || (end > capacity_ && !Reserve(end))) {
        return nullptr;
    }
    uint8_t* const place = storage_ + kHeadroom + size_;
    size_ = end;
    return place;
}

inline const uint8_t* Parcel::Take(size_t bytes)
{
    if (bytes > GetReadableBytes()) {
        return nullptr;
    }
    const uint8_t* const place = storage_ + kHeadroom + position_;
    position_ += bytes;
    return place;
}

template <typename T>
inline bool Parcel::WriteScalar(T value)
{
    uint8_t* const place = Append(sizeof(value));
    if (place == nullptr) {
        return false;
    }
    std::memcpy(place, &value, sizeof(value));
    return true;
}

template <typename T>
inline bool Parcel::ReadScalar(T& value)
{
    const uint8_t* const place = Take(sizeof(value));
    if (place == nullptr) {
        return false;
    }
    std::memcpy(&value, place, sizeof(value));
    return true;
}

template <typename S>
inline bool Parcel::WriteText(const S& value)
{
    constexpr size_t kUnit = sizeof(typename S::value_type);
    // A text that alone exceeds the limit goes no further: its length fits 32 bits below.
    if (value.size() > limit_) {
        return false;
    }
    const size_t total = sizeof(uint32_t) + Padded((value.size() + 1) * kUnit);
    uint8_t* const place = Append(total);
    if (place == nullptr) {
        return false;
    }
    const auto length = static_cast<uint32_t>(value.size());
    std::memcpy(place, &length, sizeof(length));
    // The closing zero and the padding all lie in the last word.
    std::memset(place + total - kAlignment, 0, kAlignment);
    std::copy_n(reinterpret_cast<const uint8_t*>(value.data()), value.size() * kUnit, place + sizeof(length));
    return true;
}

template <typename S>
inline bool Parcel::ReadText(S& value)
{
    using Unit = typename S::value_type;
    const size_t start = position_;
    uint32_t length = 0;
    if (!ReadScalar(length)) {
        return false;
    }
    // 64 bits wide: no length that 32 bits can state overflows here.
    const uint64_t total = Padded((uint64_t{length} + 1) * sizeof(Unit));
    const uint8_t* const place = total <= GetReadableBytes() ? Take(static_cast<size_t>(total)) : nullptr;
    Unit end = 1;
    if (place != nullptr) {
        std::memcpy(&end, place + length * sizeof(Unit), sizeof(Unit));
    }
    if (end != 0) {
        position_ = start;
        return false;
    }
    value.assign(reinterpret_cast<const Unit*>(place), length);
    return true;
}

bool Parcel::WriteBool(bool value)
{
    return WriteScalar(uint32_t{value});
}

bool Parcel::WriteInt32(int32_t value)
{
    return WriteScalar(value);
}

bool Parcel::WriteUint32(uint32_t value)
{
    return WriteScalar(value);
}

bool Parcel::WriteInt64(int64_t value)
{
    return WriteScalar(value);
}

bool Parcel::WriteUint64(uint64_t value)
{
    return WriteScalar(value);
}

bool Parcel::WriteDouble(double value)
{
    return WriteScalar(value);
}

bool Parcel::WriteString(const std::string& value)
{
    return WriteText(value);
}

bool Parcel::WriteString16(const std::u16string& value)
{
    return WriteText(value);
}

bool Parcel::WriteParcelable(const Parcelable* value)
{
    const size_t start = size_;
    if (WriteBool(value != nullptr) && (value == nullptr || value->Marshalling(*this))) {
        return true;
    }
    size_ = start;
    return false;
}

bool Parcel::ReadBool(bool& value)
{
    uint32_t word = 0;
    if (!ReadScalar(word)) {
        return false;
    }
    value = word != 0;
    return true;
}

bool Parcel::ReadInt32(int32_t& value)
{
    return ReadScalar(value);
}

bool Parcel::ReadUint32(uint32_t& value)
{
    return ReadScalar(value);
}

bool Parcel::ReadInt64(int64_t& value)
{
    return ReadScalar(value);
}

bool Parcel::ReadUint64(uint64_t& value)
{
    return ReadScalar(value);
}

bool Parcel::ReadDouble(double& value)
{
    return ReadScalar(value);
}

bool Parcel::ReadString(std::string& value)
{
    return ReadText(value);
}

bool Parcel::ReadString16(std::u16string& value)
{
    return ReadText(value);
}

void ParcelAccess::Clear(Parcel& parcel)
{
    if (parcel.storage_ != parcel.inline_ && parcel.capacity_ > kKeptBytes) {
        KeepOrFree(parcel.storage_, kHeadroom + parcel.capacity_);
        parcel.storage_ = parcel.inline_;
        parcel.capacity_ = Parcel::kInlineBytes;
    }
    SetSize(parcel, 0);
}

void ParcelAccess::Clear(MessageParcel& parcel)
{
    parcel.objects_.clear();
    Clear(static_cast<Parcel&>(parcel));
}

}  // namespace VEXA
