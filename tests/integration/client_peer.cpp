// SPDX-License-Identifier: Apache-2.0
//   client_peer ID   serves ID until its manager has gone
//
// A migration service without a migration. The error number of StartMigrate's answer is the process id, and each
// StartMigrate sends one event to the callback that is registered.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "native_migrate/migrate_protocol.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

class PeerService : public IPCObjectStub {
public:
    PeerService() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (data.ReadInterfaceToken() != MIGRATE_SERVER_DESCRIPTOR) {
            return MIGRATE_UNREACHABLE;
        }
        if (code == uint32_t(MigrateRequestCode::START_MIGRATE)) {
            return StartMigrate(reply);
        }
        MutexLock lock(mutex_);
        switch (code) {
            case uint32_t(MigrateRequestCode::REGISTER_PROGRESS_CALLBACK):
                callback_ = data.ReadRemoteObject();
                return 0;
            case uint32_t(MigrateRequestCode::UNREGISTER_PROGRESS_CALLBACK):
                callback_ = nullptr;
                return 0;
            default:
                return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
    }

private:
    int32_t StartMigrate(MessageParcel& reply)
    {
        sptr<IRemoteObject> callback;
        {
            MutexLock lock(mutex_);
            callback = callback_;
        }
        if (callback != nullptr) {
            MessageParcel event;
            MessageParcel nothing;
            MessageOption option;
            event.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
            event.WriteUint32(1);
            event.WriteString("{}");
            callback->SendRequest(MIGRATE_PROGRESS_CODE, event, nothing, option);
        }
        return reply.WriteString("{\"errorNum\":" + std::to_string(getpid()) + "}") ? 0 : 1;
    }

    Mutex mutex_{LockRank::Program};
    sptr<IRemoteObject> callback_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace

int main(int argc, char** argv)
{
    const pid_t parent = getppid();
    if (argc < 2) {
        return 1;
    }
    // On a machine under load the manager may take its time.
    sptr<ISystemAbilityManager> manager;
    for (int attempt = 0; manager == nullptr && attempt < 10; ++attempt) {
        manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }
    const sptr<IRemoteObject> service(new PeerService);
    if (manager == nullptr || manager->AddSystemAbility(std::atoi(argv[1]), service) != SAMGR_OK) {
        return 1;
    }
    while (getppid() == parent) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    _exit(0);
}
