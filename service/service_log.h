// SPDX-License-Identifier: Apache-2.0
// The service's log lines: "[file(line)]message". Every conversion carries its privacy marker.
#pragma once

#include <cstring>

#include "native_migrate/update_label.h"
#include "vexa/log/kolog.h"

#define MIGRATE_SA_LOG(level, format, ...)                                                       \
    ::VEXA::KoLogPrint(::VEXA::UpdateEngine::UPDATE_LABEL[6].type, (level),                      \
        ::VEXA::UpdateEngine::UPDATE_LABEL[6].domain, ::VEXA::UpdateEngine::UPDATE_LABEL[6].tag, \
        "[%{public}s(%{public}d)]" format, ::basename(__FILE__), __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define SA_LOGI(...) MIGRATE_SA_LOG(::VEXA::KOLOG_INFO, __VA_ARGS__)
#define SA_LOGW(...) MIGRATE_SA_LOG(::VEXA::KOLOG_WARN, __VA_ARGS__)
#define SA_LOGE(...) MIGRATE_SA_LOG(::VEXA::KOLOG_ERROR, __VA_ARGS__)
