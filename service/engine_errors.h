// SPDX-License-Identifier: Apache-2.0
// What several of the engine's operations answer when they can't be carried out.
#pragma once

#include "migration_engine.h"

namespace VEXA::UpdateEngine {

inline BusinessError SourceError()
{
    return MakeError(MIGRATE_ERROR_SOURCE, "the source directory can't be read");
}

inline BusinessError StateError()
{
    return MakeError(MIGRATE_ERROR_STATE, "the service's state can't be written");
}

inline BusinessError NoSuchPackage()
{
    return MakeError(MIGRATE_ERROR_NOT_FOUND, "there is no package of that name");
}

}  // namespace VEXA::UpdateEngine
