// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "parcel_access.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/testing/refusing_parcels.h"

namespace VEXA {
namespace {

using namespace std::string_literals;

std::string Bytes(const Parcel& parcel)
{
    return {reinterpret_cast<const char*>(ParcelAccess::Data(parcel)), parcel.GetDataSize()};
}

// Puts all of `bytes` into the storage but declares `size` of them: a reader that goes beyond finds true bytes there.
void Fill(Parcel& parcel, const std::string& bytes, size_t size)
{
    ASSERT_TRUE(ParcelAccess::ReserveTotal(parcel, bytes.size()));
    std::memcpy(ParcelAccess::Data(parcel), bytes.data(), bytes.size());
    ParcelAccess::SetSize(parcel, size);
}

struct Pair : Parcelable {
    int32_t a = 0;
    std::string b;

    bool Marshalling(Parcel& parcel) const override { return parcel.WriteInt32(a) && parcel.WriteString(b); }
    static Pair* Unmarshalling(Parcel& parcel)
    {
        auto pair = std::make_unique<Pair>();
        return parcel.ReadInt32(pair->a) && parcel.ReadString(pair->b) ? pair.release() : nullptr;
    }
};

// One value, its bytes as docs/wire-format.md lists them, and its reader: true when the value was there and right.
struct Golden {
    const char* name;
    std::string bytes;
    std::function<bool(Parcel&)> write;
    std::function<bool(Parcel&)> read;
};

template <typename T, typename Argument>
Golden Value(const char* name, const std::string& bytes, bool (Parcel::*write)(Argument), bool (Parcel::*read)(T&),
    const T& value)
{
    return {name, bytes, [=](Parcel& parcel) { return (parcel.*write)(value); },
        [=](Parcel& parcel) {
            T found{};
            return (parcel.*read)(found) && found == value;
        }};
}

bool WritePair(Parcel& parcel)
{
    Pair pair;
    pair.a = 7;
    pair.b = "x";
    return parcel.WriteParcelable(&pair);
}

bool ReadPair(Parcel& parcel)
{
    const auto pair = parcel.ReadParcelable<Pair>();
    return pair != nullptr && pair->a == 7 && pair->b == "x";
}

const Golden GOLDENS[] = {
    Value("bool", "\1\0\0\0"s, &Parcel::WriteBool, &Parcel::ReadBool, true),
    Value("int32", "\xFE\xFF\xFF\xFF"s, &Parcel::WriteInt32, &Parcel::ReadInt32, -2),
    Value("uint32", "\x78\x56\x34\x12"s, &Parcel::WriteUint32, &Parcel::ReadUint32, 0x12345678U),
    Value("int64", "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, &Parcel::WriteInt64, &Parcel::ReadInt64, int64_t{-2}),
    Value("uint64", "\x08\x07\x06\x05\x04\x03\x02\x01"s, &Parcel::WriteUint64, &Parcel::ReadUint64,
        uint64_t{0x0102030405060708}),
    Value("double", "\0\0\0\0\0\0\x04\xC0"s, &Parcel::WriteDouble, &Parcel::ReadDouble, -2.5),
    Value("empty string", "\0\0\0\0\0\0\0\0"s, &Parcel::WriteString, &Parcel::ReadString, ""s),
    Value("3 bytes", "\3\0\0\0abc\0"s, &Parcel::WriteString, &Parcel::ReadString, "abc"s),
    Value("4 bytes", "\4\0\0\0abcd\0\0\0\0"s, &Parcel::WriteString, &Parcel::ReadString, "abcd"s),
    Value("zero inside", "\3\0\0\0a\0b\0"s, &Parcel::WriteString, &Parcel::ReadString, "a\0b"s),
    Value("1 unit", "\1\0\0\0\xAC\x20\0\0"s, &Parcel::WriteString16, &Parcel::ReadString16, u"\u20AC"s),
    Value("2 units", "\2\0\0\0H\0i\0\0\0\0\0"s, &Parcel::WriteString16, &Parcel::ReadString16, u"Hi"s),
    {"parcelable", "\1\0\0\0\7\0\0\0\1\0\0\0x\0\0\0"s, &WritePair, &ReadPair},
    {"no parcelable", "\0\0\0\0"s, [](Parcel& parcel) { return parcel.WriteParcelable(nullptr); },
        [](Parcel& parcel) { return parcel.GetReadableBytes() == 4 && parcel.ReadParcelable<Pair>() == nullptr; }},
    {"any truth", "\0\1\0\0"s, [](Parcel& parcel) { return parcel.WriteUint32(0x100); },
        [](Parcel& parcel) { return parcel.ReadBool(); }},
};

TEST(ParcelValues, HaveTheirBytesAndReadBack)
{
    for (const Golden& golden : GOLDENS) {
        SCOPED_TRACE(golden.name);
        Parcel parcel;
        ASSERT_TRUE(golden.write(parcel));
        EXPECT_EQ(Bytes(parcel), golden.bytes);
        EXPECT_TRUE(golden.read(parcel));
        EXPECT_EQ(parcel.GetReadableBytes(), 0u);
        parcel.RewindRead();
        EXPECT_TRUE(golden.read(parcel));
    }
}

TEST(ParcelValues, AreNoneWhenCutAnywhere)
{
    for (const Golden& golden : GOLDENS) {
        for (size_t size = 0; size < golden.bytes.size(); ++size) {
            Parcel parcel;
            Fill(parcel, golden.bytes, size);
            EXPECT_FALSE(golden.read(parcel)) << golden.name << size;
            EXPECT_LE(parcel.GetReadPosition(), golden.name == "parcelable"s ? size : 0) << golden.name << size;
        }
    }
}

TEST(ParcelValues, AreWrittenWholeOrNotAtAll)
{
    for (const Golden& golden : GOLDENS) {
        const size_t whole = golden.bytes.size() + 4;
        for (size_t limit = 4; limit <= whole; ++limit) {
            const RefusingParcels refusing(limit);
            Parcel parcel;
            ASSERT_TRUE(parcel.WriteUint32(5));
            EXPECT_EQ(golden.write(parcel), limit == whole) << golden.name << limit;
            EXPECT_EQ(parcel.GetDataSize(), limit == whole ? whole : 4u) << golden.name << limit;
        }
    }
}

TEST(Parcel, RefusesTextsThatLieAboutThemselves)
{
    const std::string lies[] = {
        "\xFF\xFF\xFF\xFF"s + "abc\0"s,       // the closing zero and the padding overflow 32 bits
        "\xFE\xFF\xFF\xFF"s + "abc\0"s,       // the padding does
        "\xFC\xFF\xFF\xFF"s + "abc\0"s,       // together with the length word
        "\xFF\xFF\xFF\x7F"s + "a\0b\0\0\0"s,  // twice the count overflows 32 bits
        "\4\0\0\0"s + "abcd"s,                // no room for the closing zero
        "\3\0\0\0"s + "abcd"s,                // no closing zero, for 8 bits; no room for 16
        "\1\0\0\0"s + "abcd"s,                // no closing zero for either
    };
    for (const auto& lie : lies) {
        Parcel parcel;
        Fill(parcel, lie, lie.size());
        std::string text = "kept";
        std::u16string text16 = u"kept";
        EXPECT_FALSE(parcel.ReadString(text));
        EXPECT_FALSE(parcel.ReadString16(text16));
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(text16, u"kept");
        EXPECT_EQ(parcel.GetReadPosition(), 0u);
    }
}

TEST(Parcel, KeepsValuesAndHeadroomWhileItGrowsAndForgetsWithClear)
{
    Parcel parcel;
    std::memset(ParcelAccess::Storage(parcel), 0x5A, ParcelAccess::kHeadroom);
    const std::string text(1000, 'x');
    for (int32_t i = 0; i < 2000; ++i) {
        ASSERT_TRUE(parcel.WriteInt32(i) && parcel.WriteString(text));
    }
    for (int32_t i = 0; i < 2000; ++i) {
        ASSERT_EQ(parcel.ReadInt32(), i);
        ASSERT_EQ(parcel.ReadString(), text);
    }
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ParcelAccess::Storage(parcel)), ParcelAccess::kHeadroom),
        std::string(ParcelAccess::kHeadroom, 0x5A));
    ParcelAccess::Clear(parcel);
    EXPECT_LT(ParcelAccess::Capacity(parcel), 64u * 1024);
    EXPECT_TRUE(parcel.WriteInt32(3) && parcel.ReadInt32() == 3);
}

TEST(MessageParcelTest, CarriesObjectsInSlots)
{
    const sptr<IRemoteObject> first(new IPCObjectStub);
    const sptr<IRemoteObject> second(new IPCObjectStub);
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteInterfaceToken(u"T") && parcel.WriteRemoteObject(first));
    ASSERT_TRUE(parcel.WriteRemoteObject(nullptr) && parcel.WriteRemoteObject(second) && parcel.WriteUint32(3));
    EXPECT_EQ(Bytes(parcel), "\1\0\0\0T\0\0\0\1\0\0\0\0\0\0\0\2\0\0\0\3\0\0\0"s);

    MessageParcel copy;
    ASSERT_TRUE(copy.WriteInt32(1) && copy.CopyFrom(parcel));
    for (auto* each : {&parcel, &copy}) {
        EXPECT_EQ(each->ReadInterfaceToken(), u"T");
        EXPECT_EQ(each->ReadRemoteObject(), first);
        EXPECT_EQ(each->ReadRemoteObject(), nullptr);
        EXPECT_EQ(each->ReadRemoteObject(), second);
        EXPECT_EQ(each->ReadRemoteObject(), nullptr) << "a slot beyond the objects";
        EXPECT_EQ(each->GetReadableBytes(), 4u);
    }
    EXPECT_TRUE(parcel.CopyFrom(parcel) && parcel.ReadInterfaceToken() == u"T");
    EXPECT_EQ(first->GetSptrRefCount(), 3);
    ParcelAccess::Clear(copy);
    const RefusingParcels refusing;
    MessageParcel refused;
    EXPECT_FALSE(refused.WriteRemoteObject(first));
    EXPECT_EQ(first->GetSptrRefCount(), 2);
}

}  // namespace
}  // namespace VEXA
