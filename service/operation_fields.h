// SPDX-License-Identifier: Apache-2.0
// Arguments of operations that may not have every value. They are checked where a request is read.
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/migrate_results.h"
#include "native_migrate/task_info.h"
#include "service_limits.h"

namespace VEXA::UpdateEngine {

struct Name : std::string {
    using Plain = std::string;
    using Plain::Plain;
    bool IsAllowed() const { return !empty(); }
};

// What an observer is registered under.
struct ObserverName : Name {
    using Name::Name;
    bool IsAllowed() const { return Name::IsAllowed() && size() <= kLongestCaller; }
};

struct PlainNumber {
    using Plain = PlainNumber;
    PlainNumber(int32_t number = 0) : value(number) {}
    operator int32_t() const { return value; }
    int32_t value;
};

// A user of the source, or all.
struct User : PlainNumber {
    using PlainNumber::PlainNumber;
    bool IsAllowed() const { return value >= MIGRATE_ALL_USERS; }
};

struct Policy : PlainNumber {
    using PlainNumber::PlainNumber;
    bool IsAllowed() const { return value == MIGRATE_POLICY_GO_ON || value == MIGRATE_POLICY_STOP; }
};

// A number that travels as decimal text.
struct NumberText : PlainNumber {
    using PlainNumber::PlainNumber;
};

// One of the MIGRATE_EVENT_... actions, or one that nobody knows.
struct MigrationEvent {
    std::string action;
    TaskPauseReason reason = TaskPauseReason::USER;  // of a pause
};

}  // namespace VEXA::UpdateEngine
