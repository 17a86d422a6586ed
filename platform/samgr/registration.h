// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "vexa/ipc/iremote_object.h"

namespace VEXA::samgr {

// Registers an object with the manager under a number, or withdraws the number when the object is null. The result is a
// SamgrError or an IpcError. Blocks for at most kManagerWaitSeconds.
int32_t Register(const sptr<IRemoteObject>& manager, int32_t systemAbilityId, const sptr<IRemoteObject>& object);

}  // namespace VEXA::samgr
