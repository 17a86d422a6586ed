// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <tuple>

#include "parcel_access.h"
#include "vexa/ipc/iremote_proxy.h"
#include "vexa/ipc/iremote_stub.h"
#include "vexa/testing/refusing_parcels.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA {
namespace {

using namespace std::string_literals;

std::string Bytes(const Parcel& parcel)
{
    return {reinterpret_cast<const char*>(ParcelAccess::Data(parcel)), parcel.GetDataSize()};
}

// Puts all of `bytes` into the storage but declares `size` of them.
void Fill(Parcel& parcel, const std::string& bytes, size_t size)
{
    ASSERT_TRUE(ParcelAccess::ReserveTotal(parcel, bytes.size()));
    std::memcpy(ParcelAccess::Data(parcel), bytes.data(), bytes.size());
    ParcelAccess::SetSize(parcel, size);
}

struct Text : Parcelable {
    std::string text;

    bool Marshalling(Parcel& parcel) const override { return parcel.WriteString(text); }
    static Text* Unmarshalling(Parcel& parcel)
    {
        auto made = std::make_unique<Text>();
        return parcel.ReadString(made->text) ? made.release() : nullptr;
    }
};

// One value, its bytes as docs/wire-format.md lists them, and its reader: true when the value was there and right.
using Golden = std::tuple<const char*, std::string, std::function<bool(Parcel&)>, std::function<bool(Parcel&)>>;

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

const Golden GOLDENS[] = {
    Value("bool", "\1\0\0\0"s, &Parcel::WriteBool, &Parcel::ReadBool, true),
    Value("int32", "\xFE\xFF\xFF\xFF"s, &Parcel::WriteInt32, &Parcel::ReadInt32, -2),
    Value("uint32", "\x78\x56\x34\x12"s, &Parcel::WriteUint32, &Parcel::ReadUint32, 0x12345678U),
    Value("int64", "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, &Parcel::WriteInt64, &Parcel::ReadInt64, int64_t{-2}),
    Value("uint64", "\x08\x07\x06\x05\x04\x03\x02\x01"s, &Parcel::WriteUint64, &Parcel::ReadUint64,
        uint64_t{0x0102030405060708}),
    Value("double", "\0\0\0\0\0\0\x04\xC0"s, &Parcel::WriteDouble, &Parcel::ReadDouble, -2.5),
    Value("empty string", "\0\0\0\0\0\0\0\0"s, &Parcel::WriteString, &Parcel::ReadString, ""s),
    Value("4 bytes", "\4\0\0\0abcd\0\0\0\0"s, &Parcel::WriteString, &Parcel::ReadString, "abcd"s),
    Value("zero inside", "\3\0\0\0a\0b\0"s, &Parcel::WriteString, &Parcel::ReadString, "a\0b"s),
    Value("1 unit", "\1\0\0\0\xAC\x20\0\0"s, &Parcel::WriteString16, &Parcel::ReadString16, u"\u20AC"s),
    Value("2 units", "\2\0\0\0H\0i\0\0\0\0\0"s, &Parcel::WriteString16, &Parcel::ReadString16, u"Hi"s),
    {"parcelable", "\1\0\0\0\1\0\0\0x\0\0\0"s,
        [](Parcel& parcel) {
            Text text;
            text.text = "x";
            return parcel.WriteParcelable(&text);
        },
        [](Parcel& parcel) {
            const auto text = parcel.ReadParcelable<Text>();
            return text != nullptr && text->text == "x";
        }},
    {"no parcelable", "\0\0\0\0"s, [](Parcel& parcel) { return parcel.WriteParcelable(nullptr); },
        [](Parcel& parcel) { return parcel.GetReadableBytes() == 4 && parcel.ReadParcelable<Text>() == nullptr; }},
    {"any truth", "\0\1\0\0"s, [](Parcel& parcel) { return parcel.WriteUint32(0x100); },
        [](Parcel& parcel) { return parcel.ReadBool(); }},
};

// Each behind another value, with room for one byte more each time; read from as many of its bytes.
TEST(Parcel, ValuesAreWrittenAndReadWholeOrNotAtAll)
{
    for (const auto& [name, bytes, write, read] : GOLDENS) {
        for (size_t size = 0; size <= bytes.size(); ++size) {
            SCOPED_TRACE(name + std::to_string(size));
            const bool isWhole = size == bytes.size();
            const RefusingParcels refusing(4 + size);
            Parcel written;
            ASSERT_TRUE(written.WriteUint32(5));
            EXPECT_EQ(write(written), isWhole);
            EXPECT_EQ(Bytes(written), "\5\0\0\0"s + (isWhole ? bytes : ""));
            // A reader that goes beyond the end finds true bytes there.
            Parcel parcel;
            Fill(parcel, bytes, size);
            for (int times = 0; times < 2; ++times) {
                EXPECT_EQ(read(parcel), isWhole);
                EXPECT_TRUE(isWhole ? parcel.GetReadableBytes() == 0
                                    : parcel.GetReadPosition() <= (name == "parcelable"s ? size : 0));
                parcel.RewindRead();
            }
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
        EXPECT_FALSE(parcel.ReadString(text) || parcel.ReadString16(text16)) << &lie - lies;
        EXPECT_TRUE(text == "kept" && text16 == u"kept" && parcel.GetReadPosition() == 0) << &lie - lies;
    }
}

TEST(Parcel, KeepsValuesAndHeadroomWhileItGrowsAndForgetsWithClear)
{
    SetThreadParcelLimit(SIZE_MAX);
    EXPECT_EQ(SetThreadParcelLimit(SIZE_MAX), 16777216U);
    const std::string text(1000, 'x');
    // A parcel may get the block of one before it, which was shorter or longer, and grows beyond it.
    for (const int32_t count : {100, 1200, 40, 2400, 600, 900}) {
        Parcel parcel;
        std::memset(ParcelAccess::Storage(parcel), 0x5A, ParcelAccess::kHeadroom);
        for (int32_t i = 0; i < count; ++i) {
            ASSERT_TRUE(parcel.WriteInt32(i) && parcel.WriteString(text));
        }
        for (int32_t i = 0; i < count; ++i) {
            ASSERT_EQ(parcel.ReadInt32(), i);
            ASSERT_EQ(parcel.ReadString(), text);
        }
        EXPECT_EQ(std::string(reinterpret_cast<char*>(ParcelAccess::Storage(parcel)), ParcelAccess::kHeadroom),
            std::string(ParcelAccess::kHeadroom, 0x5A));
        ParcelAccess::Clear(parcel);
        EXPECT_LE(ParcelAccess::Capacity(parcel), 64u * 1024);
        EXPECT_TRUE(parcel.WriteInt32(3) && parcel.ReadInt32() == 3);
    }
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
        for (const sptr<IRemoteObject>& expected : {first, sptr<IRemoteObject>(), second}) {
            EXPECT_EQ(each->ReadRemoteObject(), expected);
        }
        EXPECT_EQ(each->ReadRemoteObject(), nullptr) << "a slot beyond the objects";
        EXPECT_EQ(each->GetReadableBytes(), 4u);
    }
    EXPECT_TRUE(parcel.CopyFrom(parcel) && parcel.ReadInterfaceToken() == u"T");
    EXPECT_EQ(first->GetSptrRefCount(), 3);
    ParcelAccess::Clear(copy);
    for (size_t objects = 2; objects <= 256; ++objects) {
        EXPECT_EQ(parcel.WriteRemoteObject(second), objects < 256) << objects;
    }
    const RefusingParcels refusing;
    MessageParcel full;
    EXPECT_FALSE(full.WriteRemoteObject(first));
    EXPECT_EQ(first->GetSptrRefCount(), 2);
}

class IEcho : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.IEcho")
};

class IOther : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.IOther")
};

class EchoStub : public IRemoteStub<IEcho> {};

class EchoProxy : public IRemoteProxy<IEcho> {
public:
    using IRemoteProxy::IRemoteProxy;
};

// Outlives main: its end finds the registry intact.
const BrokerDelegator<EchoProxy> DELEGATOR;

TEST(InterfaceCast, GivesTheOriginalAtHomeAndAProxyElsewhere)
{
    const sptr<EchoStub> stub(new EchoStub);
    const sptr<IRemoteObject> object = stub->AsObject();
    MessageParcel parcel;
    MessageOption option(0, 0);
    EXPECT_EQ(option.GetWaitTime(), 8) << "as without a time";
    EXPECT_EQ(object->SendRequest(2, parcel, parcel, option), IPC_UNKNOWN_REQUEST);
    EXPECT_EQ(iface_cast<IEcho>(object).GetRefPtr(), static_cast<IEcho*>(stub.GetRefPtr()));
    EXPECT_EQ(iface_cast<IOther>(object), nullptr);
    EXPECT_EQ(iface_cast<IEcho>(nullptr), nullptr);
    const wptr<IRemoteObject> ended(sptr<IRemoteObject>(new EchoStub));
    EXPECT_EQ(ended.Promote(), nullptr);

    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    const auto proxy = iface_cast<IEcho>(remote);
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->AsObject(), remote);
    EXPECT_NE(dynamic_cast<EchoProxy*>(proxy.GetRefPtr()), nullptr);
    EXPECT_EQ(iface_cast<IOther>(remote), nullptr);
    static_cast<ScriptedRemoteObject*>(remote.GetRefPtr())->Die();
    EXPECT_NE(iface_cast<IEcho>(remote), nullptr);
    sptr<IRemoteObject> from(remote);
    sptr<IRemoteObject> to(object);
    to = std::move(from);
    EXPECT_TRUE(to == remote && from == nullptr);
}

TEST(ScriptedObjectTest, HangsUntilItIsLetGoOrDiesOrTheTimeIsOver)
{
    using namespace std::chrono_literals;
    const sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    const auto ask = [object](int32_t flags) {
        MessageParcel parcel;
        MessageOption option(flags);
        return object->SendRequest(1, parcel, parcel, option);
    };
    object->HoldRequests(1ms);
    EXPECT_EQ(ask(MessageOption::TF_SYNC), IPC_TIMED_OUT);
    const std::pair<void (*)(ScriptedRemoteObject&), int32_t> ends[] = {
        {[](auto& held) { held.ReleaseRequests(); }, IPC_OK}, {[](auto& held) { held.Die(); }, IPC_DEAD_OBJECT}};
    for (const auto& [end, result] : ends) {
        object->HoldRequests();
        EXPECT_EQ(ask(MessageOption::TF_ASYNC), IPC_OK);
        auto answer = std::async(std::launch::async, ask, MessageOption::TF_SYNC);
        EXPECT_EQ(answer.wait_for(10ms), std::future_status::timeout);
        end(*object);
        EXPECT_EQ(answer.get(), result);
    }
}

TEST(ObjectDeathTest, DeletedWhileHeldEndsTheProcessUnlessThatLeaves)
{
    const auto end = [] {
        IPCObjectStub stub(u"test.IHeld");
        sptr<IRemoteObject>(&stub).Detach();
    };
    EXPECT_DEATH(end(), "test.IHeld");
    const auto leave = [] {
        static IPCObjectStub stub;
        sptr<IRemoteObject>(&stub).Detach();
        exit(0);
    };
    EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "");
}

TEST(BrokerRegistrationTest, KeepsTheFirstCreatorOfADescriptor)
{
    auto& registry = BrokerRegistration::Get();
    BrokerDelegator<EchoProxy>();
    EXPECT_FALSE(registry.Register(u"", [](const auto&) { return nullptr; }));
    EXPECT_FALSE(registry.Register(IEcho::GetDescriptor(), [](const auto&) { return nullptr; }));
    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    EXPECT_NE(registry.NewInstance(IEcho::GetDescriptor(), remote), nullptr);
    EXPECT_EQ(registry.NewInstance(IEcho::GetDescriptor(), nullptr), nullptr);

    // A creator may come back to the registry.
    const std::u16string descriptor = u"test.Reentrant";
    ASSERT_TRUE(registry.Register(descriptor, [&](const sptr<IRemoteObject>& object) {
        registry.Unregister(descriptor);
        return registry.NewInstance(IEcho::GetDescriptor(), object);
    }));
    EXPECT_NE(registry.NewInstance(descriptor, remote), nullptr);
    EXPECT_EQ(registry.NewInstance(descriptor, remote), nullptr);
}

}  // namespace
}  // namespace VEXA
