#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: examples_test.sh CMAKE SOURCE_TREE BUILD_TREE GENERATOR COMPILER SANITIZERS
set -euo pipefail
cmake="$1" tree="$2" build="$3" generator="$4" compiler="$5" sanitizers="$6"

root="$(mktemp -d "${TMPDIR:-/tmp}/examples-test.XXXXXX")"
trap 'rm -rf "$root"' EXIT

"$cmake" --install "$build" --prefix "$root/usr" >"$root/log"
flags="${sanitizers:+-fsanitize=$sanitizers}"
"$cmake" -G "$generator" -S "$tree/examples" -B "$root/examples" -DCMAKE_PREFIX_PATH="$root/usr" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >>"$root/log" || { cat "$root/log"; exit 1; }
"$cmake" --build "$root/examples" >>"$root/log" || { cat "$root/log"; exit 1; }

export PATH="$root/examples:$root/usr/bin:$PATH" MIGRATE_SOURCE="$root/source" MIGRATE_TARGET="$root/target"
mkdir -p "$MIGRATE_SOURCE/plain" "$MIGRATE_SOURCE/aside" "$MIGRATE_TARGET"
echo plain >"$MIGRATE_SOURCE/plain/file"
echo '{"bundleName":"org.example.aside","reserved":true}' >"$MIGRATE_SOURCE/aside/manifest.json"

mkdir "$root/empty"
MIGRATE_SOURCE="$root/empty" vexa-session -- watch_migration  # there is nothing to do
vexa-session -- bash -euo pipefail -c '
    expect() {
        local status=0 wanted="$1"
        shift
        "$@" || status=$?
        [[ "$status" == "$wanted" ]] || { echo "$*: exit status $status instead of $wanted"; exit 1; }
    }
    expect 0 load_service 65792
    expect 1 load_service 77
    expect 1 backup_owner
    expect 0 watch_migration
    for program in watch_migration backup_owner reserve_observer load_service; do
        expect 2 $program --bogus 2>&1 | grep -q -- --bogus
    done
    expect 0 backup_owner
    expect 1 reserve_observer org.example.absent
    expect 0 reserve_observer org.example.aside
'
diff -r "$MIGRATE_SOURCE" "$MIGRATE_TARGET" --exclude='.migrate-state*'
