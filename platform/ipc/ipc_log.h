// SPDX-License-Identifier: Apache-2.0
// The transport's own log lines.
#pragma once

#include "checked_log.h"

namespace VEXA {

inline constexpr KoLogLabel kIpcLabel{KOLOG_TYPE_CORE, 0xD001510, "VEXA_IPC"};

}  // namespace VEXA

#define IPC_LOG(level, ...) ::VEXA::KoLogLine(::VEXA::kIpcLabel, level, __VA_ARGS__)
#define IPC_LOGE(...) IPC_LOG(::VEXA::KOLOG_ERROR, __VA_ARGS__)
#define IPC_LOGW(...) IPC_LOG(::VEXA::KOLOG_WARN, __VA_ARGS__)
