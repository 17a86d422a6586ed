// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "vexa/ipc/iremote_proxy.h"
#include "vexa/ipc/iremote_stub.h"
#include "vexa/testing/scripted_remote_object.h"

namespace VEXA {
namespace {

class IEcho : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.IEcho")
    virtual std::string Echo(const std::string& text) = 0;
};

class IOther : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.IOther")
};

class EchoStub : public IRemoteStub<IEcho> {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code != 1) {
            return IRemoteStub::OnRemoteRequest(code, data, reply, option);
        }
        reply.WriteString(Echo(data.ReadString()));
        return 2000;
    }
    std::string Echo(const std::string& text) override { return text + text; }
};

class EchoProxy : public IRemoteProxy<IEcho> {
public:
    using IRemoteProxy::IRemoteProxy;
    std::string Echo(const std::string& text) override { return text; }

private:
    // Outlives main: its end finds the registry intact.
    static BrokerDelegator<EchoProxy> delegator_;
};

BrokerDelegator<EchoProxy> EchoProxy::delegator_;

class Recipient : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override {}
};

TEST(LocalObject, IsCalledPlainly)
{
    const sptr<IRemoteObject> object(new EchoStub);
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    ASSERT_TRUE(data.WriteString("ab"));
    EXPECT_EQ(object->SendRequest(1, data, reply, option), 2000);
    EXPECT_EQ(reply.ReadString(), "abab");
    EXPECT_EQ(object->SendRequest(2, data, reply, option), IPC_UNKNOWN_REQUEST);
    EXPECT_FALSE(object->IsProxyObject() || object->IsObjectDead());

    const sptr<IRemoteObject::DeathRecipient> recipient(new Recipient);
    EXPECT_FALSE(object->AddDeathRecipient(recipient) || object->RemoveDeathRecipient(recipient));
    EXPECT_EQ(recipient->GetSptrRefCount(), 1);
}

TEST(InterfaceCast, GivesTheOriginalAtHomeAndAProxyElsewhere)
{
    const sptr<EchoStub> stub(new EchoStub);
    const sptr<IRemoteObject> object = stub->AsObject();
    EXPECT_EQ(iface_cast<IEcho>(object).GetRefPtr(), static_cast<IEcho*>(stub.GetRefPtr()));
    EXPECT_EQ(iface_cast<IOther>(object), nullptr);
    EXPECT_EQ(iface_cast<IEcho>(nullptr), nullptr);

    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    const auto proxy = iface_cast<IEcho>(remote);
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->AsObject(), remote);
    EXPECT_NE(dynamic_cast<EchoProxy*>(proxy.GetRefPtr()), nullptr);
    EXPECT_EQ(iface_cast<IOther>(remote), nullptr);
}

TEST(BrokerRegistrationTest, KeepsTheFirstCreatorOfADescriptor)
{
    auto& registry = BrokerRegistration::Get();
    EXPECT_FALSE(registry.Register(u"", [](const auto&) { return nullptr; }));
    EXPECT_FALSE(registry.Register(u"test.None", nullptr));
    EXPECT_FALSE(registry.Register(IEcho::GetDescriptor(), [](const auto&) { return nullptr; }));
    {
        const BrokerDelegator<EchoProxy> second;
    }

    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    EXPECT_NE(registry.NewInstance(IEcho::GetDescriptor(), remote), nullptr);
    EXPECT_EQ(registry.NewInstance(IEcho::GetDescriptor(), nullptr), nullptr);
}

TEST(BrokerRegistrationTest, CallsACreatorThatComesBackToIt)
{
    auto& registry = BrokerRegistration::Get();
    const std::u16string descriptor = u"test.Reentrant";
    ASSERT_TRUE(registry.Register(descriptor, [&](const sptr<IRemoteObject>& object) {
        registry.Unregister(descriptor);
        return registry.NewInstance(IEcho::GetDescriptor(), object);
    }));
    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    EXPECT_NE(registry.NewInstance(descriptor, remote), nullptr);
    EXPECT_EQ(registry.NewInstance(descriptor, remote), nullptr);
}

TEST(BrokerRegistrationTest, IsUsedFromManyThreads)
{
    auto& registry = BrokerRegistration::Get();
    const sptr<IRemoteObject> remote(new ScriptedRemoteObject);
    std::atomic<int> registered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                if (registry.Register(u"test.Contended", [](const auto& object) { return new EchoProxy(object); })) {
                    ++registered;
                    registry.Unregister(u"test.Contended");
                }
                EXPECT_NE(registry.NewInstance(IEcho::GetDescriptor(), remote), nullptr);
                registry.NewInstance(u"test.Contended", remote);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_GE(registered.load(), 500);
    EXPECT_EQ(registry.NewInstance(u"test.Contended", remote), nullptr);
    EXPECT_EQ(remote->GetSptrRefCount(), 1);
}

}  // namespace
}  // namespace VEXA
