// SPDX-License-Identifier: Apache-2.0
#include "log_settings.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "vexa/log/kolog.h"
#include "vexa/log/ring_log_sink.h"

namespace VEXA {
namespace {

std::string_view FromEnvironment(const char* name)
{
    const char* value = secure_getenv(name);
    return value != nullptr ? value : "";
}

LogSink* MakeNamedSink(std::string_view name)
{
    constexpr std::string_view file = "file:";
    if (name == "ring") {
        return &RingLogSink::Process();
    }
    if (name == "journal") {
        return MakeJournalLogSink().release();
    }
    if (name.substr(0, file.size()) == file) {
        return MakeFileLogSink(std::string(name.substr(file.size()))).release();
    }
    errno = EINVAL;
    return nullptr;
}

void Report(LogSink& sink, const std::string& message)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    sink.Write({KOLOG_TYPE_CORE, KOLOG_WARN, 0, "KOLOG", getpid(), gettid(), now, "%{public}s", message});
}

LogSink* MakeEnvironmentSink()
{
    const std::string_view name = FromEnvironment("KOLOG_SINK");
    const bool wantsStderr = name.empty() || name == "stderr";
    LogSink* sink = wantsStderr ? nullptr : MakeNamedSink(name);
    if (sink == nullptr) {
        const int error = errno;
        sink = MakeStderrLogSink().release();
        if (!wantsStderr) {
            const char* const reason =
                error == EINVAL ? "it is none of stderr, file:PATH, journal and ring" : strerror(error);
            Report(*sink, "KOLOG_SINK=" + std::string(name) + " can't be used: " + reason);
        }
    }
    return sink;
}

}  // namespace

std::optional<uint32_t> LevelFromText(std::string_view text)
{
    static constexpr std::pair<std::string_view, uint32_t> names[] = {{"debug", KOLOG_DEBUG}, {"info", KOLOG_INFO},
        {"warn", KOLOG_WARN}, {"error", KOLOG_ERROR}, {"fatal", KOLOG_FATAL}};
    for (const auto& [name, level] : names) {
        if (name.size() == text.size() && strncasecmp(name.data(), text.data(), text.size()) == 0) {
            return level;
        }
    }
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size() && number > 0;
    return isNumber ? std::optional(number) : std::nullopt;
}

uint32_t EnvironmentLevel()
{
    const std::string_view text = FromEnvironment("KOLOG_LEVEL");
    const std::optional<uint32_t> level = LevelFromText(text);
    if (!level && !text.empty()) {
        Report(EnvironmentSink(), "KOLOG_LEVEL=" + std::string(text) +
                                      " is none of debug, info, warn, error, fatal and a number; it is info now");
    }
    return level.value_or(KOLOG_INFO);
}

bool EnvironmentShowsPrivate()
{
    const std::string_view value = FromEnvironment("KOLOG_DEBUG_PROCESS");
    return !value.empty() && value != "0";
}

LogSink& EnvironmentSink()
{
    static LogSink* sink = MakeEnvironmentSink();
    return *sink;
}

}  // namespace VEXA
