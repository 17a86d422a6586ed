// SPDX-License-Identifier: Apache-2.0
//   samgr_peer serve ID    serves ID with one worker until it is ended: any request gets its process id, or that of the
//                          service with the number in the request, which the handler loads
//   samgr_peer migrate ID  serves ID until its manager has gone, as a migration service without a migration: the error
//                          number of StartMigrate's answer is its process id, and each StartMigrate sends one event to
//                          the callback that is registered
//   samgr_peer load ID     loads ID and prints its process id
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "native_migrate/migrate_protocol.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

int32_t LoadedPid(ISystemAbilityManager& manager, int32_t id)
{
    const auto object = manager.LoadSystemAbility(id, 5);
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    return object != nullptr && object->SendRequest(1, data, reply, option) == 0 ? reply.ReadInt32() : -1;
}

class PeerStub : public IPCObjectStub {
public:
    explicit PeerStub(const sptr<ISystemAbilityManager>& manager) : manager_(manager) {}
    int32_t OnRemoteRequest(uint32_t, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        const int32_t loaded = data.ReadInt32();
        return reply.WriteInt32(loaded > 0 ? LoadedPid(*manager_, loaded) : getpid()) ? 0 : 1;
    }

private:
    const sptr<ISystemAbilityManager> manager_;
};

class MigrationStub : public IPCObjectStub {
public:
    MigrationStub() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (data.ReadInterfaceToken() != MIGRATE_SERVER_DESCRIPTOR) {
            return MIGRATE_UNREACHABLE;
        }
        MutexLock lock(mutex_);
        if (code != uint32_t(MigrateRequestCode::START_MIGRATE)) {
            callback_ = data.ReadRemoteObject();  // On brings one, Off none
            return 0;
        }
        const sptr<IRemoteObject> callback = callback_;
        lock.Unlock();
        if (callback != nullptr) {
            MessageParcel event;
            MessageParcel nothing;
            event.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
            event.WriteUint32(1);
            event.WriteString("{}");
            callback->SendRequest(MIGRATE_PROGRESS_CODE, event, nothing, option);
        }
        return reply.WriteString("{\"errorNum\":" + std::to_string(getpid()) + "}") ? 0 : 1;
    }

private:
    Mutex mutex_{LockRank::Program};
    sptr<IRemoteObject> callback_ VEXA_GUARDED_BY(mutex_);
};

// Registers with the next manager where one has been killed before it has answered. `parent`: serves as long as it has
// this parent; -1: for ever.
int Serve(sptr<ISystemAbilityManager> manager, int32_t id, const sptr<IRemoteObject>& object, pid_t parent)
{
    int32_t result = SAMGR_OK;
    for (int attempt = 0; attempt < 500; ++attempt) {
        result = manager != nullptr ? manager->AddSystemAbility(id, object) : int32_t{IPC_DEAD_OBJECT};
        if (result != IPC_DEAD_OBJECT && result != IPC_CONNECTION_LOST) {
            break;
        }
        usleep(10'000);
        manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }
    while (result == SAMGR_OK && (parent < 0 || getppid() == parent)) {
        usleep(200'000);
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const pid_t parent = getppid();
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const std::string role = argc < 3 ? "" : argv[1];
    if (role == "migrate") {
        return Serve(manager, atoi(argv[2]), new MigrationStub, parent);
    }
    if (role.empty() || manager == nullptr) {
        return 2;
    }
    if (role == "serve") {
        IPCSkeleton::SetMaxWorkThreads(1);
        return Serve(manager, atoi(argv[2]), new PeerStub(manager), -1);
    }
    const int32_t pid = LoadedPid(*manager, atoi(argv[2]));
    printf("%d\n", pid);
    return pid > 0 ? 0 : 1;
}
