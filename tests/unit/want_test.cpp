// SPDX-License-Identifier: Apache-2.0
#include "vexa/want/want.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "parcel_access.h"
#include "vexa/ipc/parcel.h"
#include "vexa/testing/refusing_parcels.h"

namespace AAFwk {
namespace {

using namespace std::string_literals;
using VEXA::Parcel;
using VEXA::ParcelAccess;
using Texts = std::vector<std::string>;

Want Sample()
{
    Want want = Want().SetAction("act").SetBundleName("b").SetUri("u:1").SetFlags(0x10);
    want.SetParam("b", true).SetParam("d", 1.5).SetParam("i", 7).SetParam("l", int64_t{1} << 40);
    return want.SetParam("s", "text").SetParam("v", Texts{"x", ""});
}

// The bytes of Sample(), as docs/wire-format.md lists them.
const std::string kSampleBytes =
    "\3\0\0\0act\0"s
    "\1\0\0\0b\0\0\0"s
    "\0\0\0\0\0\0\0\0"s
    "\3\0\0\0u:1\0"s
    "\x10\0\0\0"s
    "\6\0\0\0"s
    "\1\0\0\0b\0\0\0\0\0\0\0\1\0\0\0"s
    "\1\0\0\0d\0\0\0\3\0\0\0\0\0\0\0\0\0\xF8\x3F"s
    "\1\0\0\0i\0\0\0\1\0\0\0\7\0\0\0"s
    "\1\0\0\0l\0\0\0\2\0\0\0\0\0\0\0\0\1\0\0"s
    "\1\0\0\0s\0\0\0\4\0\0\0\4\0\0\0text\0\0\0\0"s
    "\1\0\0\0v\0\0\0\5\0\0\0\2\0\0\0\1\0\0\0x\0\0\0\0\0\0\0\0\0\0\0"s;

std::string Bytes(const Want& want)
{
    Parcel parcel;
    EXPECT_TRUE(want.Marshalling(parcel));
    return {reinterpret_cast<const char*>(ParcelAccess::Data(parcel)), parcel.GetDataSize()};
}

std::unique_ptr<Want> FromBytes(const std::string& bytes, size_t size = std::string::npos)
{
    Parcel parcel;
    EXPECT_TRUE(ParcelAccess::ReserveTotal(parcel, bytes.size()));
    std::memcpy(ParcelAccess::Data(parcel), bytes.data(), bytes.size());
    ParcelAccess::SetSize(parcel, size < bytes.size() ? size : bytes.size());
    return std::unique_ptr<Want>(Want::Unmarshalling(parcel));
}

std::string Word(uint32_t value)
{
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

TEST(WantTest, TravelsInItsBytes)
{
    const Want want = Sample();
    EXPECT_EQ(Bytes(want), kSampleBytes);
    const auto read = FromBytes(kSampleBytes);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(*read, want);
    EXPECT_EQ(read->GetParam<Texts>("v"), (Texts{"x", ""}));
    for (size_t size = 0; size < kSampleBytes.size(); ++size) {
        EXPECT_EQ(FromBytes(kSampleBytes, size), nullptr) << size;
        const VEXA::RefusingParcels refusing(size);
        Parcel parcel;
        EXPECT_FALSE(want.Marshalling(parcel)) << size;
    }
}

TEST(WantTest, ParametersAreReadAndWrittenWithinTheirLimits)
{
    const std::string a = "\1\0\0\0a\0\0\0"s;
    const std::string b = "\1\0\0\0b\0\0\0"s;
    const std::string yes = Word(0) + Word(1);
    std::string many;
    Want largest;
    for (int i = 0; i < 1025; ++i) {
        many += Word(4) + std::to_string(1000 + i) + Word(0) + yes;
        largest = i < 1024 ? largest.SetParam(std::to_string(i), i) : largest;
    }
    const std::string room(16384 * 8 + 64, '\0');
    const std::tuple<const char*, uint32_t, std::string, bool> rows[] = {{"two", 2, a + yes + b + yes, true},
        {"out of order", 2, b + yes + a + yes, false}, {"twice", 2, a + yes + a + yes, false},
        {"unknown type", 1, a + Word(6) + Word(1), false}, {"count beyond the bytes", 3, a + yes + b + yes, false},
        {"all", 1024, many, true}, {"count beyond the limit", 1025, many, false},
        {"the longest list", 1, a + Word(5) + Word(16384) + room, true},
        {"list beyond the limit", 1, a + Word(5) + Word(16385) + room, false},
        {"list beyond the bytes", 1, a + Word(5) + Word(9) + std::string(64, '\0'), false},
        {"text beyond the bytes", 1, a + Word(5) + Word(1) + Word(9) + Word(0), false}};
    for (const auto& [name, count, params, isSound] : rows) {
        // Behind empty texts and no flags.
        EXPECT_EQ(FromBytes(std::string(4 * 8 + 4, '\0') + Word(count) + params) != nullptr, isSound) << name;
    }
    Parcel parcel;
    EXPECT_NE(FromBytes(Bytes(largest)), nullptr);
    EXPECT_FALSE(largest.SetParam("one more", 1).Marshalling(parcel));
    EXPECT_TRUE(Want().SetParam("v", Texts(16384)).Marshalling(parcel));
    EXPECT_FALSE(Want().SetParam("v", Texts(16385)).Marshalling(parcel));
}

TEST(WantTest, KeepsTheTypeOfAParameter)
{
    Want want;
    want.SetParam("k", "literal");
    EXPECT_EQ(want.GetParam<std::string>("k"), "literal");
    EXPECT_EQ(want.GetParam<bool>("k", true), true);
    want.SetParam("k", false);
    EXPECT_EQ(want.GetParam<bool>("k", true), false);
    EXPECT_EQ(want.GetParam<std::string>("k", "none"), "none");
    EXPECT_FALSE(want.RemoveParam("k").HasParam("k"));
    EXPECT_EQ(want, Want());
    EXPECT_TRUE(want != Want().SetParam("k", 1) && want != Want().SetFlags(1));
    EXPECT_TRUE(want != Want().SetAction("a") && want != Want().SetBundleName("a") && want != Want().SetUri("a"));
    EXPECT_EQ(want.SetAbilityName("a").GetAbilityName(), "a");
    EXPECT_TRUE(want != Want() && want.GetBundleName().empty());
}

}  // namespace
}  // namespace AAFwk
