// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

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

Pair MakePair(int32_t a, const std::string& b)
{
    Pair pair;
    pair.a = a;
    pair.b = b;
    return pair;
}

// One value, its bytes as docs/wire-format.md lists them, and its reader: true when the value was there and right.
struct Golden {
    const char* name;
    std::function<bool(Parcel&)> write;
    std::string bytes;
    std::function<bool(Parcel&)> read;

    friend std::ostream& operator<<(std::ostream& out, const Golden& golden) { return out << golden.name; }
};

template <typename T>
std::function<bool(Parcel&)> Reads(bool (Parcel::*read)(T&), const T& expected)
{
    return [read, expected](Parcel& parcel) {
        T value{};
        return (parcel.*read)(value) && value == expected;
    };
}

const std::vector<Golden>& Goldens()
{
    static const std::vector<Golden> goldens = {
        {"bool_true", [](Parcel& p) { return p.WriteBool(true); }, "\1\0\0\0"s, Reads<bool>(&Parcel::ReadBool, true)},
        {"int32", [](Parcel& p) { return p.WriteInt32(-2); }, "\xFE\xFF\xFF\xFF"s,
            Reads<int32_t>(&Parcel::ReadInt32, -2)},
        {"uint32", [](Parcel& p) { return p.WriteUint32(0x12345678); }, "\x78\x56\x34\x12"s,
            Reads<uint32_t>(&Parcel::ReadUint32, 0x12345678)},
        {"int64", [](Parcel& p) { return p.WriteInt64(-2); }, "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s,
            Reads<int64_t>(&Parcel::ReadInt64, -2)},
        {"uint64", [](Parcel& p) { return p.WriteUint64(0x0102030405060708); }, "\x08\x07\x06\x05\x04\x03\x02\x01"s,
            Reads<uint64_t>(&Parcel::ReadUint64, 0x0102030405060708)},
        {"double", [](Parcel& p) { return p.WriteDouble(-2.5); }, "\0\0\0\0\0\0\x04\xC0"s,
            Reads<double>(&Parcel::ReadDouble, -2.5)},
        {"string_empty", [](Parcel& p) { return p.WriteString(""); }, "\0\0\0\0\0\0\0\0"s,
            Reads<std::string>(&Parcel::ReadString, "")},
        {"string_3", [](Parcel& p) { return p.WriteString("abc"); }, "\3\0\0\0abc\0"s,
            Reads<std::string>(&Parcel::ReadString, "abc")},
        {"string_4", [](Parcel& p) { return p.WriteString("abcd"); }, "\4\0\0\0abcd\0\0\0\0"s,
            Reads<std::string>(&Parcel::ReadString, "abcd")},
        {"string_zero_inside", [](Parcel& p) { return p.WriteString("a\0b"s); }, "\3\0\0\0a\0b\0"s,
            Reads<std::string>(&Parcel::ReadString, "a\0b"s)},
        {"string16_1", [](Parcel& p) { return p.WriteString16(u"\u20AC"); }, "\1\0\0\0\xAC\x20\0\0"s,
            Reads<std::u16string>(&Parcel::ReadString16, u"\u20AC")},
        {"string16_2", [](Parcel& p) { return p.WriteString16(u"Hi"); }, "\2\0\0\0H\0i\0\0\0\0\0"s,
            Reads<std::u16string>(&Parcel::ReadString16, u"Hi")},
        {"parcelable",
            [](Parcel& p) {
                const Pair pair = MakePair(7, "x");
                return p.WriteParcelable(&pair);
            },
            "\1\0\0\0\7\0\0\0\1\0\0\0x\0\0\0"s,
            [](Parcel& p) {
                const auto pair = p.ReadParcelable<Pair>();
                return pair != nullptr && pair->a == 7 && pair->b == "x";
            }},
    };
    return goldens;
}

class ParcelGolden : public testing::TestWithParam<Golden> {};

TEST_P(ParcelGolden, HasItsBytesAndReadsBack)
{
    Parcel parcel;
    ASSERT_TRUE(GetParam().write(parcel));
    EXPECT_EQ(Bytes(parcel), GetParam().bytes);
    EXPECT_TRUE(GetParam().read(parcel));
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
    parcel.RewindRead();
    EXPECT_TRUE(GetParam().read(parcel));
}

TEST_P(ParcelGolden, IsNoValueWhenCutAnywhere)
{
    for (size_t size = 0; size < GetParam().bytes.size(); ++size) {
        Parcel parcel;
        Fill(parcel, GetParam().bytes, size);
        EXPECT_FALSE(GetParam().read(parcel)) << size;
        EXPECT_LE(parcel.GetReadPosition(), size);
        if (GetParam().name != "parcelable"s) {
            EXPECT_EQ(parcel.GetReadPosition(), 0u) << size;
        }
    }
}

TEST_P(ParcelGolden, IsWrittenWholeOrNotAtAll)
{
    const size_t whole = GetParam().bytes.size() + 4;
    for (size_t limit = 4; limit <= whole; ++limit) {
        const RefusingParcels refusing(limit);
        Parcel parcel;
        ASSERT_TRUE(parcel.WriteUint32(5));
        EXPECT_EQ(GetParam().write(parcel), limit == whole) << limit;
        EXPECT_EQ(parcel.GetDataSize(), limit == whole ? whole : 4u) << limit;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ParcelGolden, testing::ValuesIn(Goldens()), [](const auto& row) { return std::string(row.param.name); });

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
        EXPECT_EQ(parcel.ReadString(), "");
        EXPECT_EQ(parcel.ReadString16(), u"");
        EXPECT_FALSE(parcel.ReadString(text));
        EXPECT_FALSE(parcel.ReadString16(text16));
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(text16, u"kept");
        EXPECT_EQ(parcel.GetReadPosition(), 0u);
    }
}

TEST(Parcel, ReadsZeroPastTheEndAndAnyNonZeroAsTrue)
{
    Parcel parcel;
    EXPECT_FALSE(parcel.ReadBool());
    EXPECT_EQ(parcel.ReadInt32(), 0);
    EXPECT_EQ(parcel.ReadUint64(), 0u);
    EXPECT_EQ(parcel.ReadDouble(), 0.0);
    EXPECT_EQ(parcel.ReadString16(), u"");
    EXPECT_EQ(parcel.ReadParcelable<Pair>(), nullptr);
    ASSERT_TRUE(parcel.WriteUint32(0x100));
    EXPECT_TRUE(parcel.ReadBool());
    ASSERT_TRUE(parcel.WriteParcelable(nullptr));
    EXPECT_EQ(parcel.ReadParcelable<Pair>(), nullptr);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(Parcel, KeepsValuesAndHeadroomWhileItGrows)
{
    Parcel parcel;
    std::memset(ParcelAccess::Storage(parcel), 0x5A, ParcelAccess::kHeadroom);
    const std::string text(1000, 'x');
    for (int32_t i = 0; i < 2000; ++i) {
        ASSERT_TRUE(parcel.WriteInt32(i) && parcel.WriteDouble(i) && parcel.WriteString(text));
    }
    for (int32_t i = 0; i < 2000; ++i) {
        ASSERT_EQ(parcel.ReadInt32(), i);
        ASSERT_EQ(parcel.ReadDouble(), i);
        ASSERT_EQ(parcel.ReadString(), text);
    }
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ParcelAccess::Storage(parcel)), ParcelAccess::kHeadroom),
        std::string(ParcelAccess::kHeadroom, 0x5A));
}

TEST(Parcel, TakesExactlyTheLargestSize)
{
    Parcel parcel;
    EXPECT_FALSE(parcel.WriteString(std::string(IPC_MAX_PARCEL_BYTES - 4, 'x')));  // 4 bytes too many
    EXPECT_TRUE(parcel.WriteString(std::string(IPC_MAX_PARCEL_BYTES - 8, 'x')));
    EXPECT_EQ(parcel.GetDataSize(), size_t{IPC_MAX_PARCEL_BYTES});
    EXPECT_FALSE(parcel.WriteBool(true));
    EXPECT_FALSE(Parcel().WriteString16(std::u16string(IPC_MAX_PARCEL_BYTES / 2, u'x')));
}

TEST(ParcelAccessTest, GivesRoomBehindTheDataAndForgetsWithClear)
{
    MessageParcel parcel;
    const sptr<IRemoteObject> object(new IPCObjectStub);
    ASSERT_TRUE(parcel.WriteRemoteObject(object) && parcel.WriteString(std::string(100, 'y')));
    const std::string before = Bytes(parcel);
    uint8_t* const room = ParcelAccess::AppendRaw(parcel, 100'000);
    ASSERT_EQ(room, ParcelAccess::Data(parcel) + before.size());
    std::memset(room, 1, 100'000);
    EXPECT_EQ(Bytes(parcel), before);

    ParcelAccess::Clear(parcel);
    EXPECT_EQ(parcel.GetDataSize(), 0u);
    EXPECT_LT(ParcelAccess::Capacity(parcel), 64u * 1024);
    EXPECT_EQ(object->GetSptrRefCount(), 1);
    EXPECT_TRUE(parcel.WriteInt32(3) && parcel.ReadInt32() == 3);
}

TEST(MessageParcelTest, CarriesObjectsInSlots)
{
    const sptr<IRemoteObject> first(new IPCObjectStub);
    const sptr<IRemoteObject> second(new IPCObjectStub);
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteInterfaceToken(u"T") && parcel.WriteRemoteObject(first));
    ASSERT_TRUE(parcel.WriteRemoteObject(nullptr) && parcel.WriteRemoteObject(second));
    EXPECT_EQ(Bytes(parcel), "\1\0\0\0T\0\0\0\1\0\0\0\0\0\0\0\2\0\0\0"s);

    MessageParcel copy;
    ASSERT_TRUE(copy.WriteInt32(1) && copy.CopyFrom(parcel));
    for (auto* each : {&parcel, &copy}) {
        EXPECT_EQ(each->ReadInterfaceToken(), u"T");
        EXPECT_EQ(each->ReadRemoteObject(), first);
        EXPECT_EQ(each->ReadRemoteObject(), nullptr);
        EXPECT_EQ(each->GetReadPosition(), 16u);
        EXPECT_EQ(each->ReadRemoteObject(), second);
        EXPECT_EQ(each->GetReadableBytes(), 0u);
    }
    EXPECT_EQ(first->GetSptrRefCount(), 3);
}

TEST(MessageParcelTest, RefusesASlotBeyondItsObjects)
{
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteRemoteObject(sptr<IRemoteObject>(new IPCObjectStub)) && parcel.WriteUint32(2));
    EXPECT_NE(parcel.ReadRemoteObject(), nullptr);
    EXPECT_EQ(parcel.ReadRemoteObject(), nullptr);
    EXPECT_EQ(parcel.GetReadPosition(), 4u);
}

TEST(MessageParcelTest, TakesNoMoreObjectsThanAFrameMayCarry)
{
    const sptr<IRemoteObject> object(new IPCObjectStub);
    {
        MessageParcel parcel;
        for (uint32_t i = 0; i < IPC_MAX_PARCEL_OBJECTS; ++i) {
            ASSERT_TRUE(parcel.WriteRemoteObject(object)) << i;
        }
        EXPECT_FALSE(parcel.WriteRemoteObject(object));
        EXPECT_TRUE(parcel.WriteRemoteObject(nullptr));
        EXPECT_EQ(parcel.GetDataSize(), (IPC_MAX_PARCEL_OBJECTS + 1) * sizeof(uint32_t));

        const RefusingParcels refusing;
        MessageParcel refused;
        EXPECT_FALSE(refused.WriteRemoteObject(object) || refused.WriteInterfaceToken(u""));
        EXPECT_EQ(object->GetSptrRefCount(), 1 + static_cast<int32_t>(IPC_MAX_PARCEL_OBJECTS));
    }
    EXPECT_EQ(object->GetSptrRefCount(), 1);
}

}  // namespace
}  // namespace VEXA
