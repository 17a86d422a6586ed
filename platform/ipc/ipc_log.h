// SPDX-License-Identifier: Apache-2.0
// The transport's own log lines.
#pragma once

#include "vexa/log/kolog.h"

#define IPC_LOG(level, ...) ::VEXA::KoLogPrint(::VEXA::KOLOG_TYPE_CORE, level, 0xD001510, "VEXA_IPC", __VA_ARGS__)
#define IPC_LOGE(...) IPC_LOG(::VEXA::KOLOG_ERROR, __VA_ARGS__)
#define IPC_LOGW(...) IPC_LOG(::VEXA::KOLOG_WARN, __VA_ARGS__)
