// SPDX-License-Identifier: Apache-2.0
// The printer of long logs that the update components share.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "native_migrate/export.h"
#include "native_migrate/update_label.h"
#include "vexa/log/kolog.h"

namespace VEXA::UpdateEngine {

// The levels that are printed; 2 has no name and is not printed.
enum UpdateLogLevel : int32_t {
    UPDATE_DEBUG = 0,
    UPDATE_INFO = 1,
    UPDATE_ERROR = 3,
};

// The argument of a print operation.
struct UpdateLogContent {
    KoLogLabel label{};  // for the caller's own use: the lines carry the label of UPDATE_LABEL
    UpdateLogLevel level = UPDATE_INFO;
    // For PrintSingleLine and PrintLog "%{public}s", "%{private}s" or anything else, which decides whether the log
    // shows `args`; for PrintLongLog a format with at most one placeholder.
    std::string log;
    std::string args;      // the text to print
    std::string fileName;  // path of the source file; the line shows its base name
    int32_t line = 0;
};

// Static members only; reentrant. Each line is "[file(line)]text". The sub-module is an index into UPDATE_LABEL; one
// that is out of its range prints nothing, and so does a level that is none of UpdateLogLevel's. Printing never blocks
// (KoLogPrint) and does not consult the log level held here.
class NATIVE_MIGRATE_EXPORT UpdateLog {
public:
    // One process-wide value, UPDATE_INFO from the start. It has no lock: a read may see the value before or after a
    // concurrent write. The reference may be written through.
    static void SetLogLevel(const UpdateLogLevel& level);
    static UpdateLogLevel& GetLogLevel();
    // True for every level.
    static bool JudgeLevel(const UpdateLogLevel& level);

    // `args` as one line.
    static void PrintSingleLine(uint32_t subModule, const UpdateLogContent& content);
    // `args` in lines of kUpdateLogPieceBytes (docs/logging.md), cut wherever they end. Nothing when it is empty.
    static void PrintLog(uint32_t subModule, const UpdateLogContent& content);
    // The text before the placeholder of `log`, then `args` under that placeholder's marker, then the text behind it,
    // each as by PrintLog and the fixed texts public. When `log` has no placeholder: all of it, then `args` as "%s".
    static void PrintLongLog(uint32_t subModule, const UpdateLogContent& content);

    // The placeholder ("%s", "%{private}s" or "%{public}s") of a format that has exactly one percent sign, else "".
    static std::string GetFmtLabel(const std::string& log);
    // The texts before and behind the first occurrence of the placeholder; all of `log` and "" when the placeholder is
    // empty or does not occur.
    static std::pair<std::string, std::string> SplitLogByFmtLabel(const std::string& log, const std::string& fmtLabel);
    // How often `sub` occurs in `str`, overlapping occurrences included; an empty `sub` occurs length + 1 times.
    static int32_t FindSubStrCount(const std::string& str, const std::string& sub);
    // The part of the path behind the last slash, or behind the last backslash when there is no slash, or all of it.
    static std::string GetBriefFileName(const std::string& path);
    // The format with every "%{public}" made "%", those included that only come about by that.
    static std::string OutputDueUploadLog(const std::string& log);

private:
    static UpdateLogLevel level_;
};

}  // namespace VEXA::UpdateEngine
