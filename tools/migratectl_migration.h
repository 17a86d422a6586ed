// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "migratectl_output.h"

namespace migratectl {

// A name that is left out stands for all in many requests, so an empty one, perhaps a script's unset variable, is
// wrong.
inline const CLI::Validator IS_NAME(
    [](const std::string& text) { return text.empty() ? "a name must not be empty" : ""; }, "", "name");

// What the chosen command does; returns the exit status.
using Action = std::function<int()>;

// Adds the commands of the migration, and of reserved applications, to `app`; the one that is chosen sets `action`.
void AddMigrationCommands(CLI::App& app, const Options& options, Action& action);
void AddReserveCommands(CLI::App& app, const Options& options, Action& action);

}  // namespace migratectl
