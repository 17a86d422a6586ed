// SPDX-License-Identifier: Apache-2.0
// Says how a request is sent.
#pragma once

#include <cstdint>

namespace VEXA {

class MessageOption {
public:
    static constexpr int32_t TF_SYNC = 0;   // wait for the reply
    static constexpr int32_t TF_ASYNC = 1;  // one-way: return once queued
    static constexpr int32_t TF_WAIT_TIME = 8;

    // `waitTime`: the longest wait for the reply, in seconds; values below 1 mean TF_WAIT_TIME.
    explicit MessageOption(int32_t flags = TF_SYNC, int32_t waitTime = TF_WAIT_TIME)
        : flags_(flags), waitTime_(waitTime > 0 ? waitTime : TF_WAIT_TIME)
    {}

    int32_t GetFlags() const { return flags_; }
    int32_t GetWaitTime() const { return waitTime_; }
    bool IsOneWay() const { return (flags_ & TF_ASYNC) != 0; }

private:
    int32_t flags_;
    int32_t waitTime_;
};

}  // namespace VEXA
