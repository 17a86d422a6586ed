// SPDX-License-Identifier: Apache-2.0
// Types of arguments that allow only some values. The reader of a request checks them.
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/task_info.h"

namespace VEXA::UpdateEngine {

// A text that isn't empty.
struct Name : std::string {
    using std::string::string;
};
// The name that an observer is registered under, of at most kLongestCaller bytes.
struct ObserverName : Name {
    using Name::Name;
};

template <typename Kind>
struct RestrictedNumber {
    RestrictedNumber(int32_t number = 0) : value(number) {}
    operator int32_t() const { return value; }
    int32_t value;
};
using User = RestrictedNumber<struct UserKind>;              // one of the source, or MIGRATE_ALL_USERS
using Policy = RestrictedNumber<struct PolicyKind>;          // one of the MIGRATE_POLICY_... values
using NumberText = RestrictedNumber<struct NumberTextKind>;  // travels as decimal text

// One of the MIGRATE_EVENT_... actions, or one that nobody knows.
struct MigrationEvent {
    std::string action;
    int32_t reason = static_cast<int32_t>(TaskPauseReason::USER);  // of a pause
};

}  // namespace VEXA::UpdateEngine
