// SPDX-License-Identifier: Apache-2.0
// The error record that nearly every reply of the migration service carries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/record_members.h"

namespace VEXA::UpdateEngine {

// One thing that has gone wrong, such as a package that can't be migrated.
struct ErrorMessage {
    int32_t errorCode = 0;
    std::string errorMessage;

    static constexpr auto Members()
    {
        return MemberList(
            Member{"errorCode", &ErrorMessage::errorCode}, Member{"errorMessage", &ErrorMessage::errorMessage});
    }
};

// Tells what the service could not do with a request that it has taken. `errorNum` is 0 when there was nothing.
struct BusinessError {
    std::string message;
    int32_t errorNum = 0;
    std::vector<ErrorMessage> data;

    static constexpr auto Members()
    {
        return MemberList(Member{"message", &BusinessError::message}, Member{"errorNum", &BusinessError::errorNum},
            Member{"data", &BusinessError::data});
    }
};

}  // namespace VEXA::UpdateEngine
