// SPDX-License-Identifier: Apache-2.0
#include "registration.h"

#include "samgr_limits.h"
#include "samgr_protocol.h"
#include "vexa/ipc/message_option.h"

namespace VEXA::samgr {

int32_t Register(const sptr<IRemoteObject>& manager, int32_t systemAbilityId, const sptr<IRemoteObject>& object)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, kManagerWaitSeconds);
    if (!WriteHead(data, systemAbilityId) || (object != nullptr && !data.WriteRemoteObject(object))) {
        return IPC_FAILED;
    }
    return manager->SendRequest(object != nullptr ? ADD_SYSTEM_ABILITY : REMOVE_SYSTEM_ABILITY, data, reply, option);
}

}  // namespace VEXA::samgr
