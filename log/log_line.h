// SPDX-License-Identifier: Apache-2.0
// The library's log lines: "[file(line)]message" under the label of the client kits.
//
//     KITS_LOGI("StartMigrate");
//     KITS_LOGE("%{public}s result is %{public}d", name, result);
//
// The message is a string literal whose conversions all carry the public marker; formats that do not fit their
// arguments do not compile. Texts are passed as `const char*`.
//
// A mechanism that several operations share logs on behalf of its caller: the caller passes LOG_SITE(), and the
// mechanism logs with KITS_LOG_AT(site, KOLOG_ERROR, "...").
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "log_format.h"
#include "native_migrate/update_label.h"
#include "vexa/log/kolog.h"

namespace VEXA::UpdateEngine {

// The place that a line names: a base name with static storage, and a line number.
struct LogSite {
    const char* file;
    int line;
};

inline constexpr KoLogLabel kKitsLabel = UPDATE_LABEL[7];

consteval const char* BaseName(const char* path)
{
    const std::string_view view(path);
    size_t slash = view.rfind('/');
    if (slash == view.npos) {
        slash = view.rfind('\\');
    }
    return slash == view.npos ? path : path + slash + 1;
}

template <typename... Args>
inline void LogLine(const LogSite& site, uint32_t level, LogFormat<std::type_identity_t<Args>...> format, Args... args)
{
    KoLogLine(kKitsLabel, level, format, site.file, site.line, args...);
}

}  // namespace VEXA::UpdateEngine

#define LOG_SITE()                                         \
    ::VEXA::UpdateEngine::LogSite                          \
    {                                                      \
        ::VEXA::UpdateEngine::BaseName(__FILE__), __LINE__ \
    }

// The format of a line, and what follows it, with the prefix in front. For a LogFormat that is kept; the macros below
// put it there themselves.
#define KITS_LINE(...) "[%{public}s(%{public}d)]" __VA_ARGS__

// The variadic part is the message and its arguments.
#define KITS_LOG_AT(site, level, ...) ::VEXA::UpdateEngine::LogLine((site), (level), KITS_LINE(__VA_ARGS__))

#define KITS_LOGD(...) KITS_LOG_AT(LOG_SITE(), ::VEXA::KOLOG_DEBUG, __VA_ARGS__)
#define KITS_LOGI(...) KITS_LOG_AT(LOG_SITE(), ::VEXA::KOLOG_INFO, __VA_ARGS__)
#define KITS_LOGE(...) KITS_LOG_AT(LOG_SITE(), ::VEXA::KOLOG_ERROR, __VA_ARGS__)
