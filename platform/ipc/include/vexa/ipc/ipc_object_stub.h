// SPDX-License-Identifier: Apache-2.0
// The original of a remote object.
#pragma once

#include <cstdint>
#include <string>

#include "vexa/base/export.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA {

class VEXA_EXPORT IPCObjectStub : public IRemoteObject {
public:
    explicit IPCObjectStub(std::u16string descriptor = std::u16string());
    ~IPCObjectStub() override;

    // Carries out one request and returns its result. Runs on a thread of the process's pool, possibly on several at
    // once, or on the caller's own thread for a call from the same process. The default knows no code and answers
    // IPC_UNKNOWN_REQUEST.
    virtual int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option);

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) final;
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) final;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) final;
    bool IsProxyObject() const final { return false; }
    bool IsObjectDead() const final { return false; }
};

}  // namespace VEXA
