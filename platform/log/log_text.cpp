// SPDX-License-Identifier: Apache-2.0
#include "log_text.h"

#include <chrono>
#include <cstdio>

#include "vexa/log/kolog.h"

namespace VEXA {
namespace {

char LevelLetter(uint32_t level)
{
    return level >= KOLOG_DEBUG && level <= KOLOG_FATAL ? "DIWEF"[level - KOLOG_DEBUG] : '?';
}

void AppendHeader(LineBuffer& out, const LogRecord& record)
{
    using namespace std::chrono;
    const sys_seconds second{seconds(record.time.tv_sec)};
    const auto day = floor<days>(second);
    const year_month_day date(day);
    const hh_mm_ss clock(second - day);
    char header[128];
    const int size = std::snprintf(header, sizeof header, "%04d-%02u-%02uT%02d:%02d:%02d.%03ldZ %d %d %c %07X/",
        static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
        static_cast<int>(clock.seconds().count()), record.time.tv_nsec / 1'000'000, record.pid, record.tid,
        LevelLetter(record.level), record.domain);
    out.Append({header, static_cast<size_t>(size)});
}

bool IsControl(char byte)
{
    return (static_cast<unsigned char>(byte) < ' ' && byte != '\t') || byte == '\x7f';
}

// A text from elsewhere must not be able to forge a line or to steer a terminal.
void AppendEscaped(LineBuffer& out, std::string_view text)
{
    static constexpr char digits[] = "0123456789abcdef";
    size_t start = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (!IsControl(text[at])) {
            continue;
        }
        out.Append(text.substr(start, at - start));
        const char escaped[] = {'\\', 'x', digits[(text[at] >> 4) & 0xF], digits[text[at] & 0xF]};
        out.Append(text[at] == '\n' ? std::string_view("\\n") : std::string_view(escaped, sizeof escaped));
        start = at + 1;
    }
    out.Append(text.substr(start));
}

}  // namespace

void ComposeLine(LineBuffer& out, const LogRecord& record)
{
    AppendHeader(out, record);
    AppendEscaped(out, record.tag);
    out.Append(": ");
    AppendEscaped(out, record.message);
}

std::string ToLogLine(const LogRecord& record)
{
    LineBuffer line;
    ComposeLine(line, record);
    return std::string(line.View());
}

}  // namespace VEXA
