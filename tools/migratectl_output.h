// SPDX-License-Identifier: Apache-2.0
// Prints for migratectl, and decides its exit status.
#pragma once

#include <cstdint>
#include <string>

#include "json_from_struct.h"
#include "migratectl_table.h"
#include "migratectl_text.h"
#include "native_migrate/migrate_records.h"
#include "vexa/json/json_context.h"

namespace migratectl {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,      // the service answered with an error
    EXIT_USAGE = 2,        // wrong arguments
    EXIT_INCOMPLETE = 3,   // the migration or restoration ended, and something could not be moved
    EXIT_UNREACHABLE = 4,  // the service can't be reached
    EXIT_OUTPUT = 5,       // done, but standard output does not take what is printed
};

// The columns of the terminal that standard output is; 0 when it is none.
using ScreenWidth = size_t (*)();

struct Options {
    bool json = false;
    ScreenWidth width = nullptr;
};

bool HasEnded(int64_t status);

// Writes to standard output at once; PrintJson a text that is JSON as a line that is valid whatever names it holds.
void Print(const std::string& text);
void PrintJson(const std::string& json);

using UpdateEngine::ToJson;
// A text of the service: as its values when it is JSON, else as a JSON string.
std::string ToJson(const std::string& text);

// A JSON value as people read it: a number by its key, a text without quotes; nothing for an absent one.
std::string ShowJson(const JsonContext& value);
// Returns the number, 0 for a value that is none.
int64_t NumberOf(const JsonContext& value);

// The exit status for a request's outcome. Says on standard error what went wrong, but leaves the service's error to
// --json.
int Judge(const Options& options, const std::string& command, int32_t result, const BusinessError& error = {});
// Ends a request: prints with --json one line {"result":..,"error":..,"reply":..}, and judges the outcome. `reply` is
// JSON.
int Finish(const Options& options, const std::string& command, int32_t result, const BusinessError& error,
    const std::string& reply = "null");

}  // namespace migratectl
