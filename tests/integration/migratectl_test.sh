#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The command line's exit statuses, with vexa-session and migratectl on PATH.
set -euo pipefail

root="$(mktemp -d "${TMPDIR:-/tmp}/migratectl-test.XXXXXX")"
trap 'rm -rf "$root"' EXIT
export MIGRATE_SOURCE="$root/source" MIGRATE_TARGET="$root/target" MIGRATE_THROTTLE=4000000 ROOT="$root"
mkdir -p "$MIGRATE_SOURCE" "$MIGRATE_TARGET"

vexa-session -- bash -euo pipefail -c '
    expect() {
        local status=0 wanted="$1"
        shift
        migratectl "$@" >"$ROOT/out" 2>"$ROOT/err" || status=$?
        [[ "$status" == "$wanted" ]] && return
        echo "migratectl $*: exit status $status instead of $wanted"
        cat "$ROOT/out" "$ROOT/err"
        exit 1
    }
    expect 0 start --watch  # nothing to do
    mkdir "$MIGRATE_SOURCE/small" "$MIGRATE_SOURCE/large"
    echo small >"$MIGRATE_SOURCE/small/file"
    truncate -s 40000000 "$MIGRATE_SOURCE/large/file"  # ten seconds, of which none is waited for

    # Nothing that can be taken for everything by mistake.
    for command in start stop task "start small --as" "reserve list" "reserve clear"; do
        expect 2 $command ""
    done
    expect 2 stop small --user 1
    [[ -z "$(ls "$MIGRATE_TARGET")" ]]

    expect 0 start small --watch
    expect 0 task small
    expect 1 task absent
    expect 1 start absent --watch
    (
        until grep -q "running *large" "$ROOT/out"; do sleep 0.05; done
        migratectl stop large
    ) &
    expect 3 start large --watch
    wait
    mkdir "$MIGRATE_TARGET/large"  # somebody else has that
    expect 1 start
    expect 3 start --watch
    expect 0 status --stage all

    for output in ">/dev/full" ">&-"; do
        status=0
        eval "migratectl --json status $output" 2>"$ROOT/err" || status=$?
        [[ "$status" == 5 ]] && grep -q "output" "$ROOT/err" || { echo "$output: exit status $status"; exit 1; }
    done
    VEXA_RUNTIME_DIR="$ROOT/none" expect 4 status
'
