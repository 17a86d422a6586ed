// SPDX-License-Identifier: Apache-2.0
// The formats of the library's lines, which are checked against their arguments while compiling.
#pragma once

#include <string_view>

#include "checked_log.h"

namespace VEXA::UpdateEngine {

// The start of every line's format; its two arguments are the file's base name and the line.
inline constexpr std::string_view kLogPrefix = "[%{public}s(%{public}d)]";

// A whole format, prefix included, for a message with arguments of the types Args, all of which are public.
template <typename... Args>
class LogFormat : public CheckedFormat<const char*, int, Args...> {
public:
    consteval LogFormat(const char* text) : CheckedFormat<const char*, int, Args...>(text, log_format::Marker::PUBLIC)
    {
        if (std::string_view(text).substr(0, kLogPrefix.size()) != kLogPrefix) {
            log_format::Fault("a log line begins with the file and line prefix", true);
        }
    }
};

}  // namespace VEXA::UpdateEngine
