#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Migrates a tree of some hundred files before your eyes, with the service killed in the middle, and compares what has
# arrived with what was sent. Needs vexa-session and migratectl on PATH; leaves nothing behind. Fails when anything
# differs.
set -euo pipefail

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
fail() {
    echo "demo: $*" >&2
    exit 1
}

# Everything about a tree that is to arrive: names, kinds, permissions, times, sizes and where links lead; then contents.
describe() {
    (cd "$1" && find . -mindepth 1 ! -path './.migrate-state*' -printf '%P\t%y\t%m\t%T@\t%l\t' \
        \( -type f -printf '%s\n' -o -printf '\n' \) | sort)
    (cd "$1" && find . -type f ! -path './.migrate-state*' -print0 | sort -z | xargs -0 sha256sum)
}

make_package() {
    local folder="$1/$2" bundle="$3" user="$4" files="$5" bytes="$6" i
    mkdir -p "$folder/data/cache" "$folder/code"
    printf '{"bundleName":"%s","versionName":"1.0.%d","versionCode":"%d","user":%d,"modules":[{"type":1,"id":"%s.main"}]}\n' \
        "$bundle" "$files" "$files" "$user" "$bundle" >"$folder/manifest.json"
    for ((i = 0; i < files; i++)); do
        head -c "$((bytes + i * 17))" /dev/urandom >"$folder/data/file $i"
    done
    : >"$folder/data/empty"
    ln -s "../data/file 0" "$folder/code/link"
    chmod 640 "$folder/data/file 1"
    chmod 750 "$folder/data"
    touch -d '2020-02-02 02:02:02.123456789' "$folder/data/file 2" "$folder/data/cache"
}

service_pid() { pgrep -f -x ".*migrate_serviced --source $MIGRATE_SOURCE --target .*"; }

# Waits until a part has been copied, and kills the service in the middle of the rest.
kill_in_the_middle() {
    local percent='' i
    for ((i = 0; i < 300; i++)); do
        # A machine that is busy may leave one question without an answer; the next comes in a moment.
        percent="$(migratectl info | awk '$1 == "percent" { print $2 }')" || true
        [[ "$percent" =~ ^[0-9]+$ && "$percent" -ge 40 ]] && break
        sleep 0.1
    done
    local pid
    pid="$(service_pid)" || return 1
    kill -9 "$pid"
    echo "     >>> kill -9 of the service, process $pid, at $percent%"
}

# Runs inside the session.
in_session() {
    say "What is there, asked of a service that is started for the question"
    migratectl packages
    echo "to migrate: $(migratectl size)"
    migratectl users

    say "The migration, watched; the service is killed on the way"
    kill_in_the_middle &
    local killer=$!
    migratectl start --watch || fail "the migration did not succeed"
    wait "$killer" || fail "the service was not killed: there was nothing to kill"

    say "Source and target, file by file"
    describe "$MIGRATE_SOURCE" >"$DEMO_DIR/source.txt"
    describe "$MIGRATE_TARGET" >"$DEMO_DIR/target.txt"
    diff "$DEMO_DIR/source.txt" "$DEMO_DIR/target.txt" || fail "the target differs from the source"
    echo "$(find "$MIGRATE_TARGET" -type f ! -path '*/.migrate-state*' | wc -l) files are identical"

    say "What this process sent for one request, and was answered"
    migratectl trace status 2>&1 | grep GET_MIGRATE_STATUS || fail "the request left no lines"
}

if [[ "${1:-}" == --in-session ]]; then
    in_session
    exit
fi

DEMO_DIR="$(mktemp -d "${TMPDIR:-/tmp}/migrate-demo.XXXXXX")"
export DEMO_DIR MIGRATE_SOURCE="$DEMO_DIR/source" MIGRATE_TARGET="$DEMO_DIR/target"
export MIGRATE_THROTTLE="${MIGRATE_THROTTLE:-4000000}" # bytes a second, so that there is something to see
trap 'rm -rf "$DEMO_DIR"' EXIT

say "A tree of some hundred files"
mkdir -p "$MIGRATE_SOURCE" "$MIGRATE_TARGET"
make_package "$MIGRATE_SOURCE" mail org.example.mail 100 120 30000
make_package "$MIGRATE_SOURCE" photos org.example.photos 100 80 90000
make_package "$MIGRATE_SOURCE" 'odd; $(name) "quoted"' org.example.odd 101 60 20000
make_package "$MIGRATE_SOURCE" notes org.example.notes 101 90 15000
echo "$(find "$MIGRATE_SOURCE" -type f | wc -l) files, $(du -sh "$MIGRATE_SOURCE" | cut -f1)"

# The manager's own lines, and the service's, are not what the demo shows.
KOLOG_LEVEL="${KOLOG_LEVEL:-error}" vexa-session -- bash "${BASH_SOURCE[0]}" --in-session ||
    fail "something went wrong: see above"
say "Done"
