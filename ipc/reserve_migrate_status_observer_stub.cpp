// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/reserve_migrate_status_observer_stub.h"

#include "log_line.h"

namespace VEXA::UpdateEngine {

ReserveMigrateStatusObserverStub::ReserveMigrateStatusObserverStub() = default;

ReserveMigrateStatusObserverStub::~ReserveMigrateStatusObserverStub() = default;

int32_t ReserveMigrateStatusObserverStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel&, MessageOption&)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        KITS_LOGE("ReadInterfaceToken is error");
        return MIGRATE_UNREACHABLE;
    }
    if (code != RESERVE_STATUS_CODE) {
        return CALLBACK_BAD_REQUEST;
    }
    const std::string statusJsonString = data.ReadString();
    KITS_LOGD("statusJsonString is %{public}s", statusJsonString.c_str());
    return OnRestoreStatusChanged(statusJsonString);
}

}  // namespace VEXA::UpdateEngine
