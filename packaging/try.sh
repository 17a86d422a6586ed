#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs, uses, upgrades, removes and purges the Debian packages of build/packages/1 and 2 in a fresh Debian 12 that
# runs its own systemd in a container. Needs root, mmdebstrap and systemd-nspawn. `--keep` leaves the container's files.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BASE=build/packages/debian-12.tar ROOT="$PWD/build/packages/root"
# What the packages need, besides what a server has, and what a program is built with.
readonly INCLUDE=systemd,systemd-sysv,dbus,libpam-systemd,libcjson1,libsqlite3-0,g++,cmake,make,pkg-config
[[ $(id -u) -eq 0 ]] || { echo "try.sh: needs root" >&2; exit 1; }

if [[ ! -e $BASE ]]; then
    echo "Making a fresh Debian 12 (once; remove $BASE to have it made anew)"
    mmdebstrap --quiet --format=tar --variant=minbase --include=$INCLUDE bookworm $BASE.new
    mv $BASE.new $BASE
fi
rm -rf "$ROOT"
mkdir "$ROOT"
tar -C "$ROOT" -xf $BASE
# The console would be ours.
ln -s /dev/null "$ROOT/etc/systemd/system/console-getty.service"
mkdir "$ROOT/try"
cp -r build/packages/1 build/packages/2 packaging/try_inside.sh "$ROOT/try"

systemd-nspawn --quiet --register=no --keep-unit --private-network --directory="$ROOT" --boot \
    </dev/null >build/packages/boot.log 2>&1 &
container=$!
finish() {
    # The first process of the container takes all others with it.
    [[ -z "${leader:-}" ]] || kill -KILL "$leader" 2>/dev/null || true
    wait $container 2>/dev/null || true
    [[ "${1:-}" == --keep ]] || rm -rf "$ROOT"
}
trap 'finish "$@"' EXIT
for ((i = 0; i < 100; i++)); do
    leader=$(pgrep -P $container -x systemd || true)
    [[ -z "$leader" ]] || break
    sleep 0.1
done
[[ -n "$leader" ]] || { cat build/packages/boot.log >&2; exit 1; }
nsenter --target "$leader" --all env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    bash /try/try_inside.sh
