// SPDX-License-Identifier: Apache-2.0
// A command of migratectl: one row of a table.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "migratectl_output.h"
#include "native_migrate/migrate_results.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace migratectl {

// The values of a command line. Each command reads those of its arguments.
struct CommandLine {
    Options options;
    std::string command;  // its name, as messages have it

    std::string name;  // of a package or a reserved application
    std::string target;
    std::string scene;
    std::string text;
    std::vector<ModuleInfo> modules;
    MigrateStage stage = MigrateStage::NONE;
    int32_t user = MIGRATE_ALL_USERS;
    int32_t priority = 0;
    int32_t number = -1;
    bool isPlaced = false;
    bool waits = false;
};

// Declares an argument to the parser, which then sets its field of `line`.
using Argument = std::function<CLI::Option*(CLI::App& app, CommandLine& line)>;
// Carries a command out; returns the exit status.
using Action = std::function<int(const CommandLine& line)>;

struct Command {
    const char* group;  // the word before its name; "" for none
    const char* name;
    const char* help;
    std::vector<Argument> arguments;
    Action action;
};

// Every command, in the order of the help.
std::span<const Command> Commands();

// Parses the arguments and carries the command out. Returns the exit status.
int Run(std::vector<std::string> arguments, ScreenWidth width);

}  // namespace migratectl
