// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>

#include "vexa/ipc/iremote_proxy.h"
#include "vexa/ipc/iremote_stub.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA {
namespace {

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
