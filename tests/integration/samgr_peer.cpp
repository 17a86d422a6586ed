// SPDX-License-Identifier: Apache-2.0
//   samgr_peer serve ID   serves ID until it is ended: any request gets its process id
//   samgr_peer load ID    loads ID and prints its process id
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
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

int Serve(ISystemAbilityManager& manager, int32_t id)
{
    const sptr<IRemoteObject> object(new PeerStub);
    if (manager.AddSystemAbility(id, object) != SAMGR_OK) {
        return 1;
    }
    for (;;) {
        pause();
    }
}

int Load(ISystemAbilityManager& manager, int32_t id)
{
    const auto object = manager.LoadSystemAbility(id, 5);
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    if (object == nullptr || object->SendRequest(1, data, reply, option) != 0) {
        return 1;
    }
    printf("%d\n", reply.ReadInt32());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (argc < 3 || manager == nullptr) {
        return 2;
    }
    return argv[1] == std::string("serve") ? Serve(*manager, atoi(argv[2])) : Load(*manager, atoi(argv[2]));
}
