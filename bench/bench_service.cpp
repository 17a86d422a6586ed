// SPDX-License-Identifier: Apache-2.0
#include "bench_service.h"

#include <unistd.h>

#include <string>

#include "native_migrate/migrate_protocol.h"
#include "support/processes.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"
#include "wire.h"

namespace VEXA::bench {
namespace {

using UpdateEngine::MIGRATE_SERVER_DESCRIPTOR;

const std::string SUCCESS_TEXT = R"({"message":"","errorNum":0,"data":[]})";

class BenchService : public IPCObjectStub {
public:
    BenchService() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}

    int32_t OnRemoteRequest(uint32_t, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        if (data.ReadInterfaceToken() != GetObjectDescriptor()) {
            return UpdateEngine::MIGRATE_UNREACHABLE;
        }
        reply.WriteString(SUCCESS_TEXT);
        return UpdateEngine::MIGRATE_SUCCESS;
    }
};

}  // namespace

int ServeRequests()
{
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

MessageSizes RequestSizes()
{
    MessageParcel request;
    request.WriteInterfaceToken(MIGRATE_SERVER_DESCRIPTOR);
    MessageParcel reply;
    reply.WriteString(SUCCESS_TEXT);
    return {ipc::kHeaderBytes + request.GetDataSize(), ipc::kHeaderBytes + reply.GetDataSize()};
}

}  // namespace VEXA::bench
