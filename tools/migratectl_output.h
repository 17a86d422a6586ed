// SPDX-License-Identifier: Apache-2.0
// What migratectl prints and returns.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "migratectl_json.h"
#include "native_migrate/migrate_records.h"
#include "native_migrate/migrate_results.h"

namespace VEXA {
class JsonContext;
}

namespace migratectl {

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,      // the service answered with an error
    EXIT_USAGE = 2,        // wrong arguments
    EXIT_INCOMPLETE = 3,   // the migration or restoration ended, and something could not be moved
    EXIT_UNREACHABLE = 4,  // the service can't be reached
    EXIT_OUTPUT = 5,       // done, but standard output does not take what is printed
};

struct Options {
    bool json = false;
};

const char* StatusName(int64_t status);
bool HasEnded(int64_t status);
// "12.3 MB".
std::string ShowBytes(int64_t bytes);
// The text with control characters made visible, for a terminal.
std::string Printable(const std::string& text);

// A row's names are the header. Columns are as wide as their longest value; an empty table has no header.
void PrintTable(const std::vector<Fields>& rows);
void PrintFields(const Fields& fields);

// The exit status for a request's outcome. Says on standard error what went wrong, unless it is all well or --json is
// given.
int Judge(const Options& options, const std::string& what, int32_t result,
    const VEXA::UpdateEngine::BusinessError& error = {});

// The reply of a request that is answered with an error only.
inline const RawJson NO_REPLY{"null"};

// Ends a request: prints with --json one line {"result":..,"error":..,"reply":..}, and judges the outcome.
template <typename Reply>
int Finish(const Options& options, const std::string& what, int32_t result,
    const VEXA::UpdateEngine::BusinessError& error, const Reply& reply)
{
    if (options.json) {
        std::string text = "{\"result\":";
        AppendJson(text, result);
        text += ",\"error\":";
        AppendJson(text, error);
        text += ",\"reply\":";
        AppendJson(text, reply);
        printf("%s}\n", text.c_str());
    }
    return Judge(options, what, result, error);
}

// A JSON value as people read it: a status by its name, a text without quotes; nothing for an absent one.
std::string ShowJson(const VEXA::JsonContext& value);
// 0 for what is no number.
int64_t NumberOf(const VEXA::JsonContext& value);

// A text of the service for Finish: as it is when it is JSON, else as a JSON string.
RawJson AsRawJson(const std::string& text);

}  // namespace migratectl
