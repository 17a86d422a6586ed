// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "migratectl_output.h"

namespace migratectl {

// A name that is left out stands for all in many requests, so an empty one, perhaps a script's unset variable, is
// wrong.
inline const CLI::Validator IS_NAME(
    [](const std::string& text) { return text.empty() ? "a name must not be empty" : ""; }, "", "name");

// The values of a command line. Each command reads its own ones.
struct CommandLine {
    Options options;
    std::function<int()> action;  // of the chosen command; returns the exit status

    std::string name;  // of a package or a reserved application
    std::string target;
    std::string scene;
    std::string text;
    std::vector<VEXA::UpdateEngine::ModuleInfo> modules;
    VEXA::UpdateEngine::MigrateStage stage = VEXA::UpdateEngine::MigrateStage::NONE;
    int32_t user = VEXA::UpdateEngine::MIGRATE_ALL_USERS;
    int32_t priority = 0;
    int32_t number = -1;
    bool isPlaced = false;
    bool watch = false;
    bool wait = false;
};

// Adds a command that does what `action` does.
CLI::App* AddCommand(
    CLI::App& app, CommandLine& line, const char* name, const char* description, const std::function<int()>& action);

// Add the commands of the migration, and of reserved applications, to `app`. `line` must outlive it.
void AddMigrationCommands(CLI::App& app, CommandLine& line);
void AddReserveCommands(CLI::App& app, CommandLine& line);

}  // namespace migratectl
