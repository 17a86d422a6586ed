// SPDX-License-Identifier: Apache-2.0
// migratectl: the migration from the command line.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "migratectl_command.h"
#include "vexa/base/standard_streams.h"

namespace {

size_t TerminalWidth()
{
    constexpr size_t kUsual = 80;
    winsize size = {};
    if (isatty(STDOUT_FILENO) == 0) {
        return 0;
    }
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

}  // namespace

int main(int argc, char** argv)
{
    VEXA::OccupyStandardStreams();
    const int status = migratectl::Run({argv + 1, argv + argc}, TerminalWidth);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return status;
    }
    fprintf(stderr, "migratectl: the output can't be written\n");
    return status == migratectl::EXIT_DONE ? migratectl::EXIT_OUTPUT : status;
}
