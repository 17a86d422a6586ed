#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages of what stands in build/package, in two releases of the same version, so that an upgrade can
# be tried: build/packages/1, which is what people install, and build/packages/2.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
for release in 1 2; do
    folder="$PWD/build/packages/$release"
    rm -rf "$folder"
    mkdir -p "$folder"
    (cd build/package && cpack -G DEB -D CPACK_DEBIAN_PACKAGE_RELEASE=$release -B "$folder") >"$folder/log" 2>&1 || {
        cat "$folder/log" >&2
        exit 1
    }
    rm -rf "$folder/_CPack_Packages" "$folder/log"
done
lintian --allow-root --fail-on error build/packages/1/*.deb
ls -l build/packages/1
