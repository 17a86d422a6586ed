// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "argument_pointers.h"
#include "command_line.h"
#include "migratectl_command.h"
#include "vexa/ipc/context_object.h"
#include "vexa/log/kolog.h"

namespace migratectl {
namespace {

static_assert(EXIT_USAGE == kUsageStatus);

// Becomes a traced session of the command. Where a manager serves already, the command stays its client: in a session
// that is traced its lines join the others', and elsewhere this process shows its own.
int Trace(std::vector<std::string> command, bool isJson, bool isVerbose)
{
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    command.insert(command.begin(), isVerbose ? 1 : 0, "-v");
    command.insert(command.begin(), isJson ? 1 : 0, "--json");
    isJson = std::find(command.begin(), command.end(), "--json") != command.end();
    command.insert(command.begin(), self);
    setenv("KOLOG_LEVEL", "error", 0);
    if (std::filesystem::exists(RuntimeDirectory() + "/samgr.sock", error)) {
        setenv("VEXA_TRACE", isJson ? "json" : "1", 0);
    } else {
        const std::string session = self.parent_path() / "vexa-session";
        command.insert(command.begin(), {session, "--trace", isJson ? "--json" : "--trace", "--"});
    }
    execv(command[0].c_str(), ArgumentPointers(command).data());
    perror(command[0].c_str());
    return EXIT_USAGE;
}

void AddCommands(CLI::App& app, CommandLine& line, Action& chosen)
{
    std::map<std::string, CLI::App*> groups{{"", &app}};
    for (const Command& command : Commands()) {
        const std::string group = command.group;
        if (!groups.contains(group)) {
            groups[group] = app.add_subcommand(group, "Reserved applications")->require_subcommand(1);
        }
        CLI::App* const added = groups[group]->add_subcommand(command.name, command.help);
        for (const Argument& argument : command.arguments) {
            argument(*added, line);
        }
        added->callback([&line, &chosen, &command] {
            line.command = std::string(command.group) + (*command.group != '\0' ? " " : "") + command.name;
            chosen = command.action;
        });
    }
}

}  // namespace

int Run(std::vector<std::string> arguments, ScreenWidth width)
{
    setlocale(LC_CTYPE, "C.UTF-8");  // for the widths of characters; what is printed is UTF-8 whatever the terminal's
    CommandLine line;
    line.options.width = width;
    Action action;
    bool isVerbose = false;
    CLI::App app("Controls the migration service.", "migratectl");
    app.add_flag("--json", line.options.json, "One JSON object a reply or event, for scripts");
    app.add_flag("-v,--verbose", isVerbose, "Log the library's progress lines, not only its errors");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "Exit status: 0 done, 1 refused by the service, 2 wrong arguments, 3 ended with something not moved,\n"
        "4 the service can't be reached, 5 done, but the output can't be written.");
    AddCommands(app, line, action);
    CLI::App* const trace =
        app.add_subcommand("trace", "Shows what all processes say to each other for the command that follows");
    trace->fallthrough(false)->prefix_command()->callback(
        [&] { action = [&](const CommandLine&) { return Trace(trace->remaining(), line.options.json, isVerbose); }; });

    std::reverse(arguments.begin(), arguments.end());
    if (const auto status = ParseCommandLine(app, arguments)) {
        return *status;
    }
    KoLogSetLevel(isVerbose ? KOLOG_INFO : KOLOG_ERROR);
    return action(line);
}

}  // namespace migratectl
