#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Records a watched migration from the real programs, with the service killed on the way, and writes it as an animated
# SVG to standard output. Needs vexa-session and migratectl on PATH and a library that they find:
#   PATH=build/release/bin:$PATH docs/pictures/watch.py > docs/pictures/watch.svg
import fcntl, html, os, pty, re, select, shutil, signal, struct, subprocess, sys, tempfile, termios, time

COLUMNS, ROWS = 72, 13
KILL_AT = 45  # percent of the whole
PACKAGES = {"mail": 40, "photos": 90, "notes": 30}  # names and hundreds of kilobytes


def record(source, target):
    """Runs the command on a terminal of its own. Returns [(seconds, text)], and when the service was killed."""
    pid, fd = pty.fork()
    if pid == 0:
        os.environ.update(MIGRATE_SOURCE=source, MIGRATE_TARGET=target, MIGRATE_THROTTLE="2500000", KOLOG_LEVEL="fatal")
        try:
            os.execvp("vexa-session", ["vexa-session", "--", "migratectl", "start", "--watch"])
        except OSError as error:
            print(error)
            os._exit(127)
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    start, output, killed, text = time.monotonic(), [], None, ""
    while True:
        if select.select([fd], [], [], 60)[0]:
            try:
                piece = os.read(fd, 65536).decode(errors="replace")
            except OSError:
                break
            if not piece:
                break
            output.append((time.monotonic() - start, piece))
            text += piece
            whole = re.findall(r"(\d+)% in all", text)
            if killed is None and whole and int(whole[-1]) >= KILL_AT:
                found = subprocess.run(["pgrep", "-f", f"migrate_serviced --source {source} "], capture_output=True)
                service = int(found.stdout.split()[0])
                os.kill(service, signal.SIGKILL)
                killed = (time.monotonic() - start, service)
    if os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) != 0 or killed is None:
        sys.exit("watch.py: the migration did not succeed, or the service was not killed:\n" + text)
    return output, killed


class Screen:
    """As much of a terminal as the command uses: line feeds, cursor up, and erasing to the end of line and screen."""

    def __init__(self):
        self.lines, self.row, self.column = [""], 0, 0

    def feed(self, text):
        for mark in re.findall(r"\x1b\[\d*[A-Za-z]|\r|\n|[^\x1b\r\n]+", text):
            if mark == "\r":
                self.column = 0
            elif mark == "\n":
                self.row += 1
                if self.row == len(self.lines):
                    self.lines.append("")
            elif mark[0] != "\x1b":
                line = self.lines[self.row].ljust(self.column)
                self.lines[self.row] = line[: self.column] + mark + line[self.column + len(mark) :]
                self.column += len(mark)
            elif mark[-1] == "A":
                self.row -= int(mark[2:-1] or 1)
            elif mark[-1] in "JK":
                self.lines[self.row] = self.lines[self.row][: self.column]
                if mark[-1] == "J":
                    del self.lines[self.row + 1 :]


def frames(output, killed):
    """Returns [(seconds, lines, note)], at most four a second; the last one stays."""
    screen, result = Screen(), []
    for at, piece in output:
        screen.feed(piece)
        note = f"kill -9 {killed[1]}: the service" if 0 <= at - killed[0] < 1.5 else ""
        frame = (at, [line for line in screen.lines if line], note)
        if result and at - result[-1][0] < 0.25 and note == result[-1][2]:
            result[-1] = (result[-1][0], *frame[1:])
        else:
            result.append(frame)
    return result


def svg(shots):
    width, height, line = COLUMNS * 8.4 + 32, 19 * ROWS + 56, 19
    end = shots[-1][0] + 4
    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" width="{width:.0f}">')
    print("<title>migratectl start --watch, while the service is killed and started again</title><style>")
    print("text{font:14px monospace;fill:#d8dee9}.n{fill:#ff8f8f}.g{visibility:hidden}.l{visibility:visible}")
    starts = [at for at, _, _ in shots] + [end]
    for i in range(len(shots)):
        begin, finish = (0 if i == 0 else starts[i] / end * 100), starts[i + 1] / end * 100
        hide = "" if i == 0 else "0%{visibility:hidden}"
        print(f"@keyframes k{i}{{{hide}{begin:.2f}%{{visibility:visible}}{finish:.2f}%,100%{{visibility:hidden}}}}")
        print(f"#s{i}{{animation:k{i} {end:.1f}s step-end infinite}}")
    print(f'</style><rect width="100%" height="100%" rx="8" fill="#20252e"/>')
    print(f'<text x="16" y="26" style="fill:#8fbcbb">$ migratectl start --watch</text>')
    for i, (_, lines, note) in enumerate(shots):
        print(f'<g id="s{i}" class="{"l" if i == len(shots) - 1 else "g"}">')
        if note:
            print(f'<text class="n" x="{width - 16:.0f}" y="26" text-anchor="end">{note}</text>')
        for row, content in enumerate(lines[-ROWS:]):
            print(f'<text x="16" y="{52 + row * line}">{html.escape(content.rstrip()).replace(" ", chr(0xA0))}</text>')
        print("</g>")
    print("</svg>")


root = tempfile.mkdtemp(prefix="watch.")
try:
    os.mkdir(f"{root}/target")
    for name, size in PACKAGES.items():
        os.makedirs(f"{root}/source/{name}")
        for number in range(10):
            with open(f"{root}/source/{name}/file {number}", "wb") as file:
                file.write(os.urandom(size * 10000))
    svg(frames(*record(f"{root}/source", f"{root}/target")))
finally:
    shutil.rmtree(root)
