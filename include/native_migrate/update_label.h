// SPDX-License-Identifier: Apache-2.0
// The labels under which the update components log; the index is the sub-module number that UpdateLog prints for.
#pragma once

#include <array>

#include "vexa/log/kolog.h"

namespace VEXA::UpdateEngine {

inline constexpr std::array<KoLogLabel, 12> UPDATE_LABEL{{
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_SA"},
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_FIRMWARE"},
    {KOLOG_TYPE_CORE, 0xD002E01, "UPDATE_KITS"},
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_PARAM"},
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_ACCESSORY"},
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_ASSIST"},
    {KOLOG_TYPE_CORE, 0xD002E10, "MIGRATE_SA"},
    {KOLOG_TYPE_CORE, 0xD002E11, "MIGRATE_KITS"},
    {KOLOG_TYPE_CORE, 0xD002E12, "MIGRATE_PLUGIN"},
    {KOLOG_TYPE_CORE, 0xD002E15, "DEVICE_ACTIVATE_SERVICE"},
    {KOLOG_TYPE_CORE, 0xD002E16, "FILE_URI_SERVICE"},
    {KOLOG_TYPE_CORE, 0xD002E00, "UPDATE_DH"},
}};

}  // namespace VEXA::UpdateEngine
