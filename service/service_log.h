// SPDX-License-Identifier: Apache-2.0
// The service's log lines: "[file(line)]message". Every conversion carries its privacy marker.
#pragma once

#include "log_line.h"

#define MIGRATE_SA_LOG(level, format, ...)                                               \
    ::VEXA::KoLogLine(::VEXA::UpdateEngine::UPDATE_LABEL[6], (level), KITS_LINE(format), \
        ::VEXA::UpdateEngine::BaseName(__FILE__), __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define SA_LOGI(...) MIGRATE_SA_LOG(::VEXA::KOLOG_INFO, __VA_ARGS__)
#define SA_LOGW(...) MIGRATE_SA_LOG(::VEXA::KOLOG_WARN, __VA_ARGS__)
#define SA_LOGE(...) MIGRATE_SA_LOG(::VEXA::KOLOG_ERROR, __VA_ARGS__)
