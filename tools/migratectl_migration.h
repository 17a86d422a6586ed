// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "migratectl_output.h"

namespace migratectl {

// What the chosen command does; returns the exit status.
using Action = std::function<int()>;

// Adds the commands of the migration, and of reserved applications, to `app`; the one that is chosen sets `action`.
void AddMigrationCommands(CLI::App& app, const Options& options, Action& action);
void AddReserveCommands(CLI::App& app, const Options& options, Action& action);

}  // namespace migratectl
