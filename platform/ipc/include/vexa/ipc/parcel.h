// SPDX-License-Identifier: Apache-2.0
// A parcel: typed values in the order in which they were written. docs/wire-format.md gives the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "vexa/base/export.h"
#include "vexa/ipc/ipc_errors.h"

namespace VEXA {

class Parcel;
class ParcelAccess;

// A value that can write itself into a parcel. A readable type adds `static T* Unmarshalling(Parcel&)`, which returns a
// new object, or null when the content is not one.
class VEXA_EXPORT Parcelable {
public:
    virtual ~Parcelable() = default;
    // Writes the value; false when the parcel could not take it.
    virtual bool Marshalling(Parcel& parcel) const = 0;
};

// Values are little-endian and start on 4-byte boundaries. Writers return false, and write nothing, when the parcel
// would grow beyond its limit. Readers return the value and go on behind it; past the end, or where the bytes are no
// such value, they return the type's zero value and stay where they are. A parcel belongs to one thread at a time.
class VEXA_EXPORT Parcel {
public:
    Parcel();
    virtual ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    bool WriteBool(bool value);
    bool WriteInt32(int32_t value);
    bool WriteUint32(uint32_t value);
    bool WriteInt64(int64_t value);
    bool WriteUint64(uint64_t value);
    bool WriteDouble(double value);
    bool WriteString(const std::string& value);
    bool WriteString16(const std::u16string& value);
    // Writes a presence mark and the value; a null pointer is written as absent.
    bool WriteParcelable(const Parcelable* value);

    bool ReadBool() { return ValueOrZero<bool>(&Parcel::ReadBool); }
    int32_t ReadInt32() { return ValueOrZero<int32_t>(&Parcel::ReadInt32); }
    uint32_t ReadUint32() { return ValueOrZero<uint32_t>(&Parcel::ReadUint32); }
    int64_t ReadInt64() { return ValueOrZero<int64_t>(&Parcel::ReadInt64); }
    uint64_t ReadUint64() { return ValueOrZero<uint64_t>(&Parcel::ReadUint64); }
    double ReadDouble() { return ValueOrZero<double>(&Parcel::ReadDouble); }
    std::string ReadString() { return ValueOrZero<std::string>(&Parcel::ReadString); }
    std::u16string ReadString16() { return ValueOrZero<std::u16string>(&Parcel::ReadString16); }

    // Tell a value from its absence: false, and `value` untouched, where the readers above return zero for want of one.
    bool ReadBool(bool& value);
    bool ReadInt32(int32_t& value);
    bool ReadUint32(uint32_t& value);
    bool ReadInt64(int64_t& value);
    bool ReadUint64(uint64_t& value);
    bool ReadDouble(double& value);
    bool ReadString(std::string& value);
    bool ReadString16(std::u16string& value);

    // Null when the value is absent or is no T.
    template <typename T>
    std::unique_ptr<T> ReadParcelable()
    {
        return ReadBool() ? std::unique_ptr<T>(T::Unmarshalling(*this)) : nullptr;
    }

    size_t GetDataSize() const { return size_; }
    size_t GetReadPosition() const { return position_; }
    size_t GetReadableBytes() const { return size_ - position_; }
    // Goes back to the first value.
    void RewindRead() { position_ = 0; }

private:
    friend class ParcelAccess;

    // Room kept in front of the data, so that the transport can send a frame's header and data with one call from one
    // buffer, and receive them with one call into it.
    static constexpr size_t kHeadroom = 32;
    static constexpr size_t kInlineBytes = 480;

    template <typename T>
    T ValueOrZero(bool (Parcel::*read)(T&))
    {
        T value{};
        (this->*read)(value);
        return value;
    }
    bool Reserve(size_t bytes);
    uint8_t* Append(size_t bytes);
    const uint8_t* Take(size_t bytes);
    template <typename T>
    bool WriteScalar(T value);
    template <typename T>
    bool ReadScalar(T& value);
    template <typename S>
    bool WriteText(const S& value);
    template <typename S>
    bool ReadText(S& value);

    uint8_t* storage_;  // kHeadroom bytes, then capacity_ bytes of data
    size_t capacity_ = kInlineBytes;
    size_t size_ = 0;
    size_t position_ = 0;
    size_t limit_;
    alignas(8) uint8_t inline_[kHeadroom + kInlineBytes];
};

}  // namespace VEXA
