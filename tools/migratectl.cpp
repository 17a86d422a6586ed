// SPDX-License-Identifier: Apache-2.0
// migratectl: the migration from the command line, through the library's public interface only.
#include <algorithm>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

#include "migratectl_migration.h"
#include "vexa/base/standard_streams.h"
#include "vexa/log/kolog.h"
#include "vexa/log/ring_log_sink.h"

namespace migratectl {
namespace {

int Run(std::vector<std::string> arguments);

// Runs a command with its log lines kept back until it has ended.
int Monitor(const std::vector<std::string>& command)
{
    constexpr size_t kLines = 10000;
    static VEXA::RingLogSink ring(kLines);
    VEXA::LogSink* const before = VEXA::SetLogSink(&ring);
    std::vector<std::string> arguments{"-v"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const int status = Run(arguments);
    VEXA::SetLogSink(before);
    for (const VEXA::LogEntry& entry : ring.After(0)) {
        printf("%s\n", VEXA::ToLogLine(entry.AsRecord()).c_str());
    }
    return status;
}

int Run(std::vector<std::string> arguments)
{
    CommandLine line;
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
    AddMigrationCommands(app, line);
    AddReserveCommands(app, line);
    // For the help only: what follows is another command line, and none of the parser's business.
    app.add_subcommand("monitor", "Runs the command that follows, and then shows the library's log lines");
    const auto word = std::find_if(
        arguments.begin(), arguments.end(), [](const std::string& text) { return text.rfind('-', 0) != 0; });
    if (word != arguments.end() && *word == "monitor" && word + 1 != arguments.end()) {
        arguments.erase(word);
        return Monitor(arguments);
    }

    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (!line.action) {
        fprintf(stderr, "migratectl: monitor: no command is given\n");
        return EXIT_USAGE;
    }
    VEXA::KoLogSetLevel(isVerbose ? VEXA::KOLOG_INFO : VEXA::KOLOG_ERROR);
    return line.action();
}

}  // namespace
}  // namespace migratectl

int main(int argc, char** argv)
{
    VEXA::OccupyStandardStreams();
    const int status = migratectl::Run({argv + 1, argv + argc});
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return status;
    }
    fprintf(stderr, "migratectl: the output can't be written\n");
    return status == migratectl::EXIT_DONE ? migratectl::EXIT_OUTPUT : status;
}
