#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares what the libraries of build/package offer to programs with the descriptions in packaging/abi/, so that nobody
# changes it unawares. With --write the descriptions are made anew. A program that is installed is broken by whatever
# they lose, and by each type whose layout changes: that takes another minor version.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
describe=(abidw --exported-interfaces-only --drop-private-types --suppressions packaging/abi/own.suppr
    --no-show-locs --no-comp-dir-path --no-corpus-path --no-parameter-names --no-elf-needed --type-id-style hash)
for folder in include platform/*/include; do
    describe+=(--headers-dir "$folder")
done

status=0
for library in vexa_platform native_migrate; do
    description="packaging/abi/$library.abi"
    now="build/package/$library.abi"
    "${describe[@]}" --out-file "$now" "build/package/lib/lib$library.so"
    if [[ "${1:-}" == --write ]]; then
        cp "$now" "$description"
    elif ! abidiff --suppressions packaging/abi/own.suppr "$description" "$now"; then
        echo "lib$library is not as $description says. Where that is intended: bash packaging/abi.sh --write" >&2
        status=1
    fi
done
exit $status
