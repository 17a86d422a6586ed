#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Does what pages tell a reader to do, each page in a folder of its own, with the project installed in ~/migrate:
#   ```sh         is run; all such blocks of a page by one shell
#   ```text       each line was printed by the block above; "…" stands for anything
#   <!-- file: NAME -->   the block behind it is written to that file
#   <!-- run: WHY -->     the block behind it is left out
# A block of any other language fails the test. ./dev only has to know the command: what it builds is there already.
# usage: docs_test.sh CMAKE SOURCE_TREE BUILD_TREE GENERATOR COMPILER SANITIZERS PAGE...
set -euo pipefail
cmake="$1" tree="$2" build="$3" sanitizers="$6"
export CMAKE_GENERATOR="$4" CXX="$5" CXXFLAGS="${6:+-fsanitize=$sanitizers}" PATH="${1%/*}:$PATH"
shift 6

root="$(mktemp -d "${TMPDIR:-/tmp}/docs-test.XXXXXX")"
trap 'rm -rf "$root"' EXIT
export HOME="$root/home"
"$cmake" --install "$build" --prefix "$HOME/migrate" >"$root/log"

# commands PAGE: a script that does what the page says.
commands() {
    awk -v page="$1" '
        function quoted(end) { print "<<\"" end "\""; closing = end }
        !inside && /^<!-- file: .* -->$/ { file = $3; next }
        !inside && /^<!-- run: .* -->$/ { skipped = 1; next }
        !inside && /^```/ {
            inside = 1
            language = substr($0, 4)
            if (skipped) closing = "-"
            else if (file) { printf "mkdir -p \"$(dirname %s)\"; cat >%s ", file, file; quoted("END_OF_FILE") }
            else if (language == "sh") { print "at=" page ":" NR "\n{"; closing = "} >output 2>&1" }
            else if (language == "text") { printf "at=" page ":" NR "\nexpect "; quoted("END_OF_LINES") }
            else if (language == "") closing = "-"
            else { print "echo " page ":" NR ": this block is neither run nor written; exit 1"; closing = "-" }
            next
        }
        inside && /^```$/ { if (closing != "-") print closing; inside = skipped = 0; file = ""; next }
        inside && closing != "-" { print }' "$tree/$1"
}

# follow PAGE: does it, in the folder of that page.
follow() {
    local folder="$root/$1"
    mkdir -p "$folder/build"
    ln -s "$build" "$folder/build/release"
    printf '#!/bin/sh\n"%s/dev" help | grep -q "^  $1 "\n' "$tree" >"$folder/dev"
    chmod +x "$folder/dev"
    cd "$folder"
    commands "$1" >commands.sh
    bash -euo pipefail -c '
        at=
        trap "status=\$?; [[ \$status == 0 ]] || { echo \"\$at fails with \$status:\"; tail -n 40 output; }" EXIT
        expect() {
            local line
            while IFS= read -r line; do
                grep -q -- "$(sed "s/[][\\.*^\$]/\\\\&/g; s/…/.*/g" <<<"$line")" output ||
                    { echo "$at: not printed: $line"; return 1; }
            done
        }
        : >output
        source ./commands.sh' </dev/null
}

pids=()
for page in "$@"; do
    follow "$page" >"$root/${page//\//-}.log" 2>&1 &
    pids+=($!)
done
failed=0
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
cat "$root"/*.log
exit "$failed"
