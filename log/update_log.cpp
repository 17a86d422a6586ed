// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/update_log.h"

#include <algorithm>
#include <string_view>

#include "checked_log.h"
#include "update_log_limits.h"

namespace VEXA::UpdateEngine {
namespace {

constexpr std::string_view kPlain = "%s";
constexpr std::string_view kPrivate = "%{private}s";
constexpr std::string_view kPublic = "%{public}s";
constexpr std::string_view kPublicMark = "%{public}";

// Zero for a level that is not printed.
uint32_t PlatformLevel(UpdateLogLevel level)
{
    switch (static_cast<int32_t>(level)) {
        case UPDATE_DEBUG:
            return KOLOG_DEBUG;
        case UPDATE_INFO:
            return KOLOG_INFO;
        case UPDATE_ERROR:
            return KOLOG_ERROR;
        default:
            return 0;
    }
}

CheckedFormat<const char*, int, const char*> LineFormat(std::string_view placeholder)
{
    if (placeholder == kPublic) {
        return "[%{public}s(%{public}d)]%{public}s";
    }
    if (placeholder == kPrivate) {
        return "[%{public}s(%{public}d)]%{private}s";
    }
    return {"[%{public}s(%{public}d)]%s", log_format::Marker::OPTIONAL};
}

// The label, level and source that all lines of one print operation share.
struct LineSource {
    const KoLogLabel& label;
    uint32_t level;
    std::string fileName;
    int32_t line;

    void Print(std::string_view placeholder, const char* text) const
    {
        KoLogLine(label, level, LineFormat(placeholder), fileName.c_str(), line, text);
    }
    // The length counts in 32 bits with a sign: there is nothing to print where that isn't positive.
    void PrintPieces(std::string_view placeholder, std::string_view text) const
    {
        const auto length = static_cast<int32_t>(text.size());
        text = text.substr(0, static_cast<size_t>(std::max(length, 0)));
        char piece[kUpdateLogPieceBytes + 1];
        while (!text.empty()) {
            const size_t size = text.copy(piece, kUpdateLogPieceBytes);
            piece[size] = '\0';
            Print(placeholder, piece);
            text.remove_prefix(size);
        }
    }
};

bool IsPrinted(uint32_t subModule, const UpdateLogContent& content)
{
    return subModule < UPDATE_LABEL.size() && PlatformLevel(content.level) != 0;
}

LineSource SourceOf(uint32_t subModule, const UpdateLogContent& content)
{
    return {UPDATE_LABEL[subModule], PlatformLevel(content.level), UpdateLog::GetBriefFileName(content.fileName),
        content.line};
}

}  // namespace

constinit UpdateLogLevel UpdateLog::level_ = UPDATE_INFO;

void UpdateLog::SetLogLevel(const UpdateLogLevel& level)
{
    level_ = level;
}

UpdateLogLevel& UpdateLog::GetLogLevel()
{
    return level_;
}

bool UpdateLog::JudgeLevel(const UpdateLogLevel&)
{
    return true;
}

void UpdateLog::PrintSingleLine(uint32_t subModule, const UpdateLogContent& content)
{
    if (IsPrinted(subModule, content)) {
        SourceOf(subModule, content).Print(content.log, content.args.c_str());
    }
}

void UpdateLog::PrintLog(uint32_t subModule, const UpdateLogContent& content)
{
    if (IsPrinted(subModule, content)) {
        SourceOf(subModule, content).PrintPieces(content.log, content.args);
    }
}

void UpdateLog::PrintLongLog(uint32_t subModule, const UpdateLogContent& content)
{
    if (!IsPrinted(subModule, content)) {
        return;
    }
    const std::string placeholder = GetFmtLabel(content.log);
    const auto [head, tail] = SplitLogByFmtLabel(content.log, placeholder);
    const LineSource source = SourceOf(subModule, content);
    source.PrintPieces(kPublic, head);
    source.PrintPieces(placeholder, content.args);
    source.PrintPieces(kPublic, tail);
}

std::string UpdateLog::GetFmtLabel(const std::string& log)
{
    if (FindSubStrCount(log, "%") != 1) {
        return "";
    }
    for (const std::string_view placeholder : {kPlain, kPrivate, kPublic}) {
        if (log.find(placeholder) != log.npos) {  // once, as its percent sign is the only one
            return std::string(placeholder);
        }
    }
    return "";
}

std::pair<std::string, std::string> UpdateLog::SplitLogByFmtLabel(const std::string& log, const std::string& fmtLabel)
{
    const size_t at = fmtLabel.empty() ? log.npos : log.find(fmtLabel);
    if (at == log.npos) {
        return {log, ""};
    }
    return {log.substr(0, at), log.substr(at + fmtLabel.size())};
}

int32_t UpdateLog::FindSubStrCount(const std::string& str, const std::string& sub)
{
    int32_t count = 0;
    for (size_t at = str.find(sub); at != str.npos; at = str.find(sub, at + 1)) {
        ++count;
    }
    return count;
}

std::string UpdateLog::GetBriefFileName(const std::string& path)
{
    size_t separator = path.rfind('/');
    if (separator == path.npos) {
        separator = path.rfind('\\');
    }
    return separator == path.npos ? path : path.substr(separator + 1);
}

// Replacing the first mark until there is none, each time from the beginning, takes quadratic time. One pass gives the
// same: whatever was passed holds no whole mark, so that the next mark to be replaced, old or newly formed, is the one
// that the next byte completes at the end of what was passed. The percent sign that stands for it can't complete
// another, as a mark ends in a brace.
std::string UpdateLog::OutputDueUploadLog(const std::string& log)
{
    std::string passed;
    passed.reserve(log.size());
    for (const char next : log) {
        passed.push_back(next);
        if (next == kPublicMark.back() && passed.size() >= kPublicMark.size() &&
            passed.compare(passed.size() - kPublicMark.size(), kPublicMark.size(), kPublicMark) == 0) {
            passed.resize(passed.size() - kPublicMark.size() + 1);
        }
    }
    return passed;
}

}  // namespace VEXA::UpdateEngine
