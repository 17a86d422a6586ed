// SPDX-License-Identifier: Apache-2.0
//   samgr_peer serve ID    serves ID until it is ended; every request gets its process id
//   samgr_peer load ID     loads ID and prints its process id
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/pid_of.h"
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
int Serve(sptr<ISystemAbilityManager> manager, int32_t id, const sptr<IRemoteObject>& object)
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
    return result == SAMGR_OK ? pause() : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const std::string role = argc < 3 ? "" : argv[1];
    if (role.empty() || manager == nullptr) {
        return 2;
    }
    if (role == "serve") {
        return Serve(manager, atoi(argv[2]), new PeerStub);
    }
    const int32_t pid = test::PidOf(manager->LoadSystemAbility(atoi(argv[2]), 5));
    printf("%d\n", pid);
    return pid > 0 ? 0 : 1;
}
