// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/migrate_callback_stub.h"

#include "json_parse.h"
#include "log_line.h"

namespace VEXA::UpdateEngine {

MigrateCallBackStub::MigrateCallBackStub(const ProgressCallback& callback) : callback_(callback.onProgress) {}

MigrateCallBackStub::~MigrateCallBackStub() = default;

int32_t MigrateCallBackStub::OnRemoteRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        KITS_LOGE("MigrateCallBack::ReadInterfaceToken fail");
        return MIGRATE_UNREACHABLE;
    }
    if (code != MIGRATE_PROGRESS_CODE) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    return OnMigrateProgress(data, reply);
}

int32_t MigrateCallBackStub::OnMigrateProgress(MessageParcel& data, MessageParcel&)
{
    if (!callback_) {
        return MIGRATE_SUCCESS;
    }
    const auto stage = static_cast<MigrateStage>(data.ReadUint32());
    EventInfo event;
    JsonParse::JsonStrToStruct(data.ReadString(), event);
    callback_(stage, event);
    return MIGRATE_SUCCESS;
}

}  // namespace VEXA::UpdateEngine
