#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds what stands in build/package once more in another folder, without the compiler's cache, and compares what is
# installed byte by byte.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/another/folder"
git ls-files -z | xargs -0 cp --parents --target-directory="$work/another/folder"
DESTDIR="$work/one.installed" cmake --install build/package >/dev/null
(
    cd "$work/another/folder"
    cmake --preset package -D NM_CCACHE= >/dev/null
    cmake --build --preset package --parallel "${JOBS:-$(nproc)}" --target products
    DESTDIR="$work/another.installed" cmake --install build/package >/dev/null
)
diff -r "$work/one.installed" "$work/another.installed"
echo "Both builds are equal: $(find "$work/one.installed" -type f | wc -l) files"
