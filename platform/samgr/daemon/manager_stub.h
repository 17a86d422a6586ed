// SPDX-License-Identifier: Apache-2.0
// The manager's object: decodes requests and hands them to the table.
#pragma once

#include "daemon/service_table.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::samgr {

class ManagerStub : public IPCObjectStub {
public:
    explicit ManagerStub(const sptr<ServiceTable>& table);

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

private:
    int32_t Load(int32_t id, const Caller& caller, const sptr<IRemoteObject>& callback);

    const sptr<ServiceTable> table_;
};

}  // namespace VEXA::samgr
