// SPDX-License-Identifier: Apache-2.0
//   samgr_peer serve ID    serves ID until it is ended; every request gets its process id
//   samgr_peer load ID     loads ID and prints its process id
#include <cstdio>

#include "support/pid_of.h"
#include "support/processes.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;

class PeerStub : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t, MessageParcel&, MessageParcel& reply, MessageOption&) override
    {
        return reply.WriteInt32(getpid()) ? 0 : 1;
    }
};

// Registers with the next manager where one has been killed before it has answered.
int Serve(int32_t id, const sptr<IRemoteObject>& object)
{
    int32_t result = IPC_DEAD_OBJECT;
    test::Eventually([&] {
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        result = manager != nullptr ? manager->AddSystemAbility(id, object) : int32_t{IPC_DEAD_OBJECT};
        return result != IPC_DEAD_OBJECT && result != IPC_CONNECTION_LOST;
    });
    return result == SAMGR_OK ? pause() : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        return 2;
    }
    if (argv[1] == std::string("serve")) {
        return Serve(atoi(argv[2]), new PeerStub);
    }
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const int32_t pid = manager != nullptr ? test::PidOf(manager->LoadSystemAbility(atoi(argv[2]), 5)) : -1;
    printf("%d\n", pid);
    return pid > 0 ? 0 : 1;
}
