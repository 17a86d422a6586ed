#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the products in two folders, without the compiler's cache, which changes paths in its own way, and compares what
# is installed byte by byte.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for folder in one another/longer-one; do
    mkdir -p "$work/$folder"
    git ls-files -z | xargs -0 cp --parents --target-directory="$work/$folder"
    (
        cd "$work/$folder"
        cmake --preset package -D NM_CCACHE= >/dev/null
        cmake --build --preset package --parallel "${JOBS:-$(nproc)}" --target products
        DESTDIR="$work/${folder%%/*}.installed" cmake --install build/package >/dev/null
    )
done
diff -r "$work/one.installed" "$work/another.installed"
echo "Both builds are equal: $(find "$work/one.installed" -type f | wc -l) files"
