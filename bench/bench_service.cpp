// SPDX-License-Identifier: Apache-2.0
#include "bench_service.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <string>
#include <vector>

#include "native_migrate/migrate_protocol.h"
#include "support/processes.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"
#include "wire.h"

namespace VEXA::bench {
namespace {

using UpdateEngine::MIGRATE_SERVER_DESCRIPTOR;
using UpdateEngine::MigrateRequestCode;

const std::string SUCCESS_TEXT = R"({"message":"","errorNum":0,"data":[]})";

class BenchService : public IPCObjectStub {
public:
    BenchService() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        if (code == SEND_TEXT) {
            return SendText(data.ReadUint32(), reply);
        }
        if (code == TELL_STATE) {
            const std::lock_guard lock(mutex_);
            reply.WriteInt32(getpid());
            reply.WriteUint32(static_cast<uint32_t>(callbacks_.size()));
            return UpdateEngine::MIGRATE_SUCCESS;
        }
        if (data.ReadInterfaceToken() != GetObjectDescriptor()) {
            return UpdateEngine::MIGRATE_UNREACHABLE;
        }
        if (code == static_cast<uint32_t>(MigrateRequestCode::REGISTER_PROGRESS_CALLBACK)) {
            return Keep(data.ReadRemoteObject());
        }
        reply.WriteString(SUCCESS_TEXT);
        return UpdateEngine::MIGRATE_SUCCESS;
    }

private:
    class Forgetter : public IRemoteObject::DeathRecipient {
    public:
        explicit Forgetter(BenchService& service) : service_(service) {}
        void OnRemoteDied(const wptr<IRemoteObject>& callback) override { service_.Forget(callback.Promote()); }

    private:
        BenchService& service_;  // lives as long as the process
    };

    int32_t SendText(size_t bytes, MessageParcel& reply)
    {
        const std::lock_guard lock(mutex_);
        text_.resize(bytes, 'x');
        return reply.WriteString(text_) ? UpdateEngine::MIGRATE_SUCCESS : UpdateEngine::MIGRATE_UNREACHABLE;
    }

    int32_t Keep(const sptr<IRemoteObject>& callback)
    {
        if (callback == nullptr) {
            return UpdateEngine::MIGRATE_UNREACHABLE;
        }
        {
            const std::lock_guard lock(mutex_);
            callbacks_.push_back(callback);
        }
        callback->AddDeathRecipient(forgetter_);
        MessageParcel event;
        event.WriteInterfaceToken(UpdateEngine::MIGRATE_CALLBACK_DESCRIPTOR);
        event.WriteUint32(0);
        event.WriteString("{}");
        MessageParcel reply;
        MessageOption option(MessageOption::TF_ASYNC);
        return callback->SendRequest(UpdateEngine::MIGRATE_PROGRESS_CODE, event, reply, option);
    }

    void Forget(const sptr<IRemoteObject>& callback)
    {
        const std::lock_guard lock(mutex_);
        std::erase(callbacks_, callback);
    }

    const sptr<IRemoteObject::DeathRecipient> forgetter_{new Forgetter(*this)};
    std::mutex mutex_;  // guards the rest
    std::string text_;
    std::vector<sptr<IRemoteObject>> callbacks_;
};

sptr<IRemoteObject> FindService()
{
    const sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    return manager != nullptr ? manager->CheckSystemAbility(UpdateEngine::MIGRATE_SERVICE_ID) : nullptr;
}

MessageSizes SizesOf(const MessageParcel& request, const MessageParcel& reply)
{
    return {ipc::kHeaderBytes + request.GetDataSize(), ipc::kHeaderBytes + reply.GetDataSize()};
}

}  // namespace

int ServeRequests()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the manager may be killed
    const sptr<IRemoteObject> service(new BenchService);
    const bool registered = test::Eventually([&] {
        const sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        return manager != nullptr && manager->AddSystemAbility(UpdateEngine::MIGRATE_SERVICE_ID, service) == SAMGR_OK;
    });
    while (registered) {
        pause();
    }
    return 1;
}

bool AskState(ServiceState& state)
{
    const sptr<IRemoteObject> service = FindService();
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    if (service == nullptr || service->SendRequest(TELL_STATE, data, reply, option) != 0) {
        return false;
    }
    state.process = reply.ReadInt32();
    state.callbacks = reply.ReadUint32();
    return true;
}

bool AskText(size_t bytes)
{
    static const sptr<IRemoteObject> service = FindService();
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    data.WriteUint32(static_cast<uint32_t>(bytes));
    return service != nullptr && service->SendRequest(SEND_TEXT, data, reply, option) == 0 &&
           reply.ReadString().size() == bytes;
}

MessageSizes StartMigrateSizes()
{
    MessageParcel request;
    request.WriteInterfaceToken(MIGRATE_SERVER_DESCRIPTOR);
    MessageParcel reply;
    reply.WriteString(SUCCESS_TEXT);
    return SizesOf(request, reply);
}

MessageSizes TextSizes(size_t bytes)
{
    MessageParcel request;
    request.WriteUint32(0);
    MessageParcel reply;
    reply.WriteString(std::string(bytes, 'x'));
    return SizesOf(request, reply);
}

}  // namespace VEXA::bench
