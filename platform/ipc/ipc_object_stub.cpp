// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/ipc_object_stub.h"

#include <utility>

#include "vexa/ipc/ipc_errors.h"

namespace VEXA {

IPCObjectStub::IPCObjectStub(std::u16string descriptor) : IRemoteObject(std::move(descriptor)) {}
IPCObjectStub::~IPCObjectStub() = default;

int32_t IPCObjectStub::OnRemoteRequest(
    uint32_t /*code*/, MessageParcel& /*data*/, MessageParcel& /*reply*/, MessageOption& /*option*/)
{
    return IPC_UNKNOWN_REQUEST;
}

int32_t IPCObjectStub::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    return OnRemoteRequest(code, data, reply, option);
}

bool IPCObjectStub::AddDeathRecipient(const sptr<DeathRecipient>& /*recipient*/)
{
    return false;
}

bool IPCObjectStub::RemoveDeathRecipient(const sptr<DeathRecipient>& /*recipient*/)
{
    return false;
}

}  // namespace VEXA
