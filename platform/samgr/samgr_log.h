// SPDX-License-Identifier: Apache-2.0
// The manager's and its client's own log lines.
#pragma once

#include "checked_log.h"

namespace VEXA {

inline constexpr KoLogLabel kSamgrLabel{KOLOG_TYPE_CORE, 0xD001511, "VEXA_SAMGR"};

}  // namespace VEXA

#define SAMGR_LOG(level, ...) ::VEXA::KoLogLine(::VEXA::kSamgrLabel, level, __VA_ARGS__)
#define SAMGR_LOGE(...) SAMGR_LOG(::VEXA::KOLOG_ERROR, __VA_ARGS__)
#define SAMGR_LOGW(...) SAMGR_LOG(::VEXA::KOLOG_WARN, __VA_ARGS__)
#define SAMGR_LOGI(...) SAMGR_LOG(::VEXA::KOLOG_INFO, __VA_ARGS__)
