// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "migratectl_command.h"
#include "vexa/ipc/context_object.h"
#include "vexa/log/kolog.h"

namespace migratectl {
namespace {

// Becomes a traced session of the command. Where a manager serves already, the command stays its client: in a session
// that is traced its lines join the others', and elsewhere this process shows its own.
int Trace(std::vector<std::string> command, bool isJson, bool isVerbose)
{
    command.insert(command.begin(), isVerbose ? 1 : 0, "-v");
    command.insert(command.begin(), isJson ? 1 : 0, "--json");
    isJson = std::find(command.begin(), command.end(), "--json") != command.end();
    setenv("KOLOG_LEVEL", "error", 0);
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path session = self.parent_path() / "vexa-session";
    std::vector<const char*> words{session.c_str(), "--trace", isJson ? "--json" : "--trace", "--"};
    if (std::filesystem::exists(RuntimeDirectory() + "/samgr.sock", error)) {
        setenv("VEXA_TRACE", isJson ? "json" : "1", 0);
        words.clear();
    }
    words.push_back(self.c_str());
    for (const std::string& word : command) {
        words.push_back(word.c_str());
    }
    words.push_back(nullptr);
    execv(words[0], const_cast<char**>(words.data()));
    perror(words[0]);
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
    app.set_version_flag("--version", "migratectl " VEXA_VERSION);
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
