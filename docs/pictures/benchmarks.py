#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Draws the figures of docs/benchmarks.md as an SVG: those of build/bench/report.json, as ./dev bench writes it, beside
# what was measured once of other programs on a machine of the same kind. Run from the top of the tree:
#   docs/pictures/benchmarks.py build/bench/report.json > docs/pictures/benchmarks.svg
import html, json, sys

OWN = "#2f6fb5"  # this project's; the others are grey
report = {entry["name"]: entry for entry in json.load(open(sys.argv[1]))}

calls = [
    ("futex in shared memory", 0.55),
    ("seqpacket socket, bare", 0.94),
    ("stream socket, bare", 1.00),
    ("StartMigrate", report["request.start_migrate"]["p50_ratio"]),
    ("sd-bus, peer to peer", 2.03),
    ("ZeroMQ REQ/REP", 4.96),
    ("Cap'n Proto RPC", 5.06),
    ("D-Bus through its daemon", 6.90),
    ("gRPC unary", 10.26),
]
texts = [
    ("RapidJSON: tree, bound by hand", 0.66),
    ("cJSON: parse and delete only", 1.00),
    ("JsonStrToStruct", report["json.bind_migrate_info"]["ratio"]),
    ("cJSON: bound by hand", 1.54),
    ("nlohmann: parse and get", 2.96),
]


def by(name, other, key):
    return report[name][key] / report[other][key]


# Each as a part of the most that is expected of it.
expected = [
    ("StartMigrate by bare socket", report["request.start_migrate"]["p50_ratio"], 1.6),
    ("reply of 64 KiB by bare socket", report["request.reply_64k"]["p50_ratio"], 1.2),
    ("reply of 1 MiB by bare socket", report["request.reply_1m"]["p50_ratio"], 1.9),
    ("recovery by an empty program", report["recovery"]["ratio"], 2.5),
    ("1,000 tasks bound by parsed", report["json.bind_migrate_info"]["ratio"], 1.75),
    ("10,000 files by cp -a, time", by("copy.files", "copy.cp_files", "p50_us"), 1.4),
    ("10,000 files by cp -a, processor", by("copy.files", "copy.cp_files", "cpu_us"), 1.25),
    ("2 GiB by cp -a, processor", by("copy.big", "copy.cp_big", "cpu_us"), 1.1),
    ("10,000 packages by 1,000", by("copy.packages_10000", "copy.packages_1000", "cpu_us"), 12),
]

WIDTH, LABELS, BARS, ROW = 760, 250, 400, 22
lines, y = [], 0


def text(x, content, style=""):
    lines.append(f'<text x="{x}" y="{y + 15}" {style}>{html.escape(content)}</text>')


def panel(title, unit, rows, at=None):
    """Rows are (label, shown number, length from 0 to 1, colour); the numbers stand at `at`, or else behind the bars."""
    global y
    y += 14
    text(10, title, 'font-weight="bold"')
    y += 20
    text(10, unit, 'fill="#667"')
    y += 26
    for label, shown, length, colour in rows:
        text(LABELS - 10, label, 'text-anchor="end"')
        lines.append(f'<rect x="{LABELS}" y="{y + 2}" width="{length * BARS:.1f}" height="{ROW - 6}" fill="{colour}"/>')
        text(at or LABELS + length * BARS + 8, shown)
        y += ROW


def compared(title, unit, rows, own):
    most = max(value for _, value in rows)
    panel(title, unit, [(n, f"{v:.2f}", v / most, OWN if n == own else "#b8bec8") for n, v in rows])


compared("One call, about 100 bytes out and back", "median time, both processes on one processor; a bare stream socket is 1",
         calls, "StartMigrate")
compared("A JSON text of 340 KB into records", "processor time; cJSON's parse and delete is 1", texts, "JsonStrToStruct")
panel("Measured, and the most that is expected", "the line stands where the measured ratio is as large as expected", [
    (n, f"{v:.2f} of {limit:g}", v / limit / 1.5, OWN if v <= limit else "#c8553d") for n, v, limit in expected],
      LABELS + BARS + 8)
top = y - ROW * len(expected)
lines.append(f'<path d="M{LABELS + BARS / 1.5:.1f} {top - 2}V{y}" stroke="#222" stroke-dasharray="4 3"/>')
y += 14

print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y}" width="{WIDTH}">')
print("<title>Measured ratios beside those of other programs</title>")
print('<style>text{font:13px sans-serif}</style><rect width="100%" height="100%" fill="#fff"/>')
print("\n".join(lines))
print("</svg>")
