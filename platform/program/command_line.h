// SPDX-License-Identifier: Apache-2.0
// How every program reads its command line.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <utility>

namespace VEXA {

// The exit status for a command line that is wrong.
inline constexpr int kUsageStatus = 2;

// Parses `arguments`, in one of the forms that CLI::App::parse takes. The status is there when the program ends with
// it: 0 after --help or --version, kUsageStatus when something is wrong, which standard error then names.
template <typename... Arguments>
std::optional<int> ParseCommandLine(CLI::App& app, Arguments&&... arguments)
{
    app.set_version_flag("--version", app.get_name() + " " VEXA_VERSION);
    try {
        app.parse(std::forward<Arguments>(arguments)...);
        return std::nullopt;
    } catch (const CLI::RequiredError& error) {
        // An unknown word may be the reason for what is missing.
        const auto unknown = app.remaining();
        return unknown.empty() ? app.exit(error) : app.exit(CLI::ExtrasError(unknown)), kUsageStatus;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageStatus;
    }
}

}  // namespace VEXA
