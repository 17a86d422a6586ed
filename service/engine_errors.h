// SPDX-License-Identifier: Apache-2.0
// Errors with which several of the engine's operations answer.
#pragma once

#include <string>
#include <vector>

#include "native_migrate/migrate_records.h"
#include "native_migrate/migrate_results.h"

namespace VEXA::UpdateEngine {

// An error that says something of the whole request.
inline BusinessError MakeError(int32_t number, const std::string& message)
{
    return {message, number, {}};
}

// No error when there are no faults.
inline BusinessError SomePackages(const std::string& message, const std::vector<ErrorMessage>& faults)
{
    return faults.empty() ? BusinessError() : BusinessError{message, MIGRATE_ERROR_SOME_PACKAGES, faults};
}

inline BusinessError StateError()
{
    return MakeError(MIGRATE_ERROR_STATE, "the service's state can't be written");
}

inline ErrorInfo TargetTaken()
{
    return {MIGRATE_ERROR_TARGET, "the target has something else of that name", false};
}

inline ErrorInfo Stopped()
{
    return {MIGRATE_ERROR_STOPPED, "stopped", true};
}

}  // namespace VEXA::UpdateEngine
