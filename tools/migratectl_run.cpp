// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <CLI/CLI.hpp>
#include <clocale>
#include <map>

#include "migratectl_command.h"
#include "vexa/log/kolog.h"
#include "vexa/log/ring_log_sink.h"

namespace migratectl {
namespace {

// Runs a command with its log lines kept back until it has ended.
int Monitor(std::vector<std::string> command, ScreenWidth width)
{
    constexpr size_t kLines = 10000;
    static RingLogSink ring(kLines);
    LogSink* const before = SetLogSink(&ring);
    command.insert(command.begin(), "-v");
    const int status = Run(std::move(command), width);
    SetLogSink(before);
    for (const LogEntry& entry : ring.After(0)) {
        Print(ToLogLine(entry.AsRecord()) + "\n");
    }
    return status;
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
    app.set_version_flag("--version", "migratectl " VEXA_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "Exit status: 0 done, 1 refused by the service, 2 wrong arguments, 3 ended with something not moved,\n"
        "4 the service can't be reached, 5 done, but the output can't be written.");
    AddCommands(app, line, action);
    // For the help only: what follows is another command line, and none of the parser's business.
    app.add_subcommand("monitor", "Runs the command that follows, and then shows the library's log lines");
    const auto word = std::find_if(
        arguments.begin(), arguments.end(), [](const std::string& text) { return text.rfind('-', 0) != 0; });
    if (word != arguments.end() && *word == "monitor") {
        arguments.erase(word);
        return Monitor(arguments, width);
    }

    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(arguments);
    } catch (const CLI::RequiredError& error) {
        // An unknown word may be the reason for what is missing.
        const auto unknown = app.remaining();
        return unknown.empty() ? app.exit(error) : app.exit(CLI::ExtrasError(unknown)), EXIT_USAGE;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    KoLogSetLevel(isVerbose ? KOLOG_INFO : KOLOG_ERROR);
    return action(line);
}

}  // namespace migratectl
