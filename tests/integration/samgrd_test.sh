#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the manager says when it can't serve, and what the programs that it starts get or fail with. Needs samgrd and
# migratectl on PATH.
set -euo pipefail
# What whoever runs this has open would count where descriptors are few.
for open in /proc/$$/fd/*; do ((${open##*/} < 3 || ${open##*/} > 250)) || eval "exec ${open##*/}>&-"; done

root="$(mktemp -d /tmp/samgrd-test.XXXXXX)"
trap 'kill -KILL $(jobs -p) 2>/dev/null || true; rm -rf "$root"' EXIT
fail() { echo "$*"; cat "$root/err" "$root/log"; exit 1; }
# refused STATUS REASON ARGUMENTS...: the manager ends so.
refused() {
    local status=0
    timeout 20 samgrd "${@:3}" 2>"$root/err" || status=$?
    [[ "$status" == "$1" ]] && grep -qF -- "$2" "$root/err" || fail "samgrd ${*:3}: exit status $status"
}
# profile ID REST [REASON]: a program; one that can't be loaded for that reason.
profile() {
    echo "{\"id\": $1, \"program\": $2}" >"$root/profiles/$1.json"
    [[ $# == 2 ]] || echo "$1 $3" >>"$root/reasons"
}
load() { timeout 20 migratectl load "$1" >"$root/err" 2>&1; }
mkdir -p "$root"/{profiles,relative,taken/samgr.sock}
touch "$root"/{log,err}

samgrd --version | grep -q "^samgrd [0-9]"
refused 4 ": Not a directory" --runtime-dir "$root/log"
refused 4 "/samgr.sock: rename: Is a directory" --runtime-dir "$root/taken"
refused 4 ": socket: File name too long" --runtime-dir "$root/$(printf "x%.0s" {1..99})"
exact="$(grep -qs __asan_init "$(command -v samgrd)" || echo yes)"  # else a companion opens descriptors, too
[[ -z "$exact" ]] || (ulimit -n 4 && refused 4 "loop can't be set up: Too many open files" --runtime-dir "$root/run")
[[ -z "$exact" ]] || (ulimit -n 8 && refused 4 ": Too many open files" --runtime-dir "$root/run")

# Everything that a program was started with. The last descriptor is the one that lists the others.
IFS="" read -r -d "" DESCRIBE <<'END' || true
echo "$0 $1; $VARIABLE, $PLACE; ${NOTIFY_SOCKET-none}; $PWD; ${VEXA_RUNTIME_DIR##*/}"
echo "session $(($(cut -d ' ' -f 6 /proc/$$/stat) - $$)), $(grep -Ec 'SigBlk:.0*$|SigIgn:.0*1000$' /proc/$$/status)"
echo "user $(id -u) $(id -G) $HOME $USER $LOGNAME $SHELL ${XDG_RUNTIME_DIR-none}"
echo /proc/self/fd/*
printf "input $(wc -c)"
printf "limit $(ulimit -Sn)" >&2
END
chmod 755 "$root"
user="$([[ "$EUID" != 0 ]] || echo ', "user": "daemon"')"
profile 4 '"/bin/sh", "arguments": ["-c", "${DESCRIBE}", "5$", "a${PLACE}b${PLACE}$${x}"], "directory": "${PLACE}",
    "environment": {"VARIABLE": "a b", "VEXA_RUNTIME_DIR": "/"}'"$user" "] ended with status 0 before it registered: limit 500"
sh='"/bin/sh", "arguments": ["-c", '
profile 10 "$sh"'"echo no room >&2; exit 3"]' "] ended with status 3 before it registered: no room"
profile 11 "$sh"'"kill -SEGV $$$$"]' "] was ended by signal 11 (Segmentation fault) before it registered"
profile 12 "$sh"'"printf late >&2; sleep 60 & echo $$! >'"$root"'/child; wait"], "startTimeout": 0.3' \
    " did not register in time and was ended: late"
profile 13 '"/bin/sh", "arguments": ["${NOT_SET}"]' "/bin/sh can't be started: variable NOT_SET of its profile is not set"
profile 14 '"/bin/sh", "arguments": ["${HOME"]' "the brace after a dollar sign of its profile is not closed"
profile 15 '"/bin/sh", "directory": "/no/such"' "changing to its directory: No such file or directory"
profile 16 '"/bin/sh", "directory": "${NOT_SET}"' "variable NOT_SET"
profile 17 '"/bin/sh", "environment": {"A": "${NOT_SET}"}' "variable NOT_SET"
profile 18 '"${NOT_SET}"' '${NOT_SET} can'"'t be started: variable NOT_SET"
profile 19 '"/no/such"' "/no/such can't be started: there is no such program: No such file or directory"
profile 20 '"/usr"' "there is no such program: Is a directory"
profile 21 '"/bin/sh", "user": "4294967294"' "there is no user 4294967294"
profile 22 "\"$root/empty\"" "executing it: Exec format error"
profile 23 '"samgrd", "arguments": ["--version"]' "samgrd["
touch "$root/empty"
chmod +x "$root/empty"

# The manager of a relative directory, whose programs have another. It has much that its programs must not get.
as="$([[ "$EUID" != 0 ]] || echo setpriv --groups 54321)"
(ulimit -Sn 500 && trap "" USR2 && cd "$root/relative" &&
    export DESCRIBE KOLOG_LEVEL=info VARIABLE=own PLACE=/usr NOTIFY_SOCKET=/no XDG_RUNTIME_DIR=/no &&
    exec $as samgrd --profiles ../profiles --runtime-dir vexa 2>>"$root/log") &
manager="$!"
until (cd "$root" && VEXA_RUNTIME_DIR="" XDG_RUNTIME_DIR=relative migratectl list) >"$root/err" 2>&1; do sleep 0.01; done
export VEXA_RUNTIME_DIR="$root/relative/vexa"
while read -r id reason; do
    load "$id" && fail "$id is loaded"
    grep -qF -- "$reason" "$root/err" || fail "not the reason of $id: $reason"
done <"$root/reasons"
while read -r line; do
    [[ "$EUID" != 0 && "$line" == "]: user "* ]] || grep -qF -- "$line" "$root/log" || fail "not in the log: $line"
done <<END
I D001511/VEXA_SAMGR: the manager serves
I D001511/VEXA_SAMGR: service 4: started /bin/sh[
E D001511/VEXA_SAMGR: service 4: /bin/sh[
]: 5\$ a/usrb/usr\${x}; a b, /usr; none; /usr; vexa
]: session 0, 2
]: user 1 1 /usr/sbin daemon daemon /usr/sbin/nologin none
]: /proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3
]: input 0
]: limit 500
]: ended with status 3
]: ended by signal 11
END
runs() { grep -qs "^State:[[:space:]]*[^Z[:space:]]" "/proc/$1/status"; }
for _ in {1..500}; do ! runs "$(cat "$root/child")" || sleep 0.01; done
! runs "$(cat "$root/child")" || fail "what the slow program has started runs on"
limits="$(grep "open files" "/proc/$manager/limits")"
[[ "$(awk '{ print $4 }' <<<"$limits")" == "$(awk '{ print $5 }' <<<"$limits")" ]] || fail "$limits"

# Where descriptors are short, each step of a start fails in turn.
for ((few = $(ls "/proc/$manager/fd" | wc -l); few < 500 && ${#exact}; few++)); do
    prlimit --pid "$manager" --nofile="$few:500"
    load 10 || ! grep -q "no room" "$root/err" || break
    grep -o "can't be started.*(error 3)" "$root/err" >>"$root/short" || true  # else it can't be reached
done
short=$'can\'t be started: /dev/null can\'t be opened (error 3)\ncan\'t be started: pipe: Too many open files (error 3)'
[[ -z "$exact" || "$(sort -u "$root/short")" == "$short" ]] || fail "$(sort -u "$root/short")"

# It reads its profiles again, and stops once.
profile 10 '"/no/such"'
kill -HUP "$manager"
until load 10 || grep -q "no such program" "$root/err"; do sleep 0.01; done
grep -q "the profiles have been read again" "$root/log" || fail "it does not say that it has read its profiles"
refused 3 "another manager serves $VEXA_RUNTIME_DIR"
kill -TERM "$manager"
kill -INT "$manager" 2>"$root/err" || true
wait "$manager"
[[ "$(grep -c "the manager stops" "$root/log")" == 1 ]] || fail "it has not stopped once"
(exec samgrd --profiles "$root/relative" 2>&-) &
until [[ -S "$VEXA_RUNTIME_DIR/samgr.sock" ]]; do sleep 0.01; done
[[ "$(readlink "/proc/$!/fd/2")" == /dev/null ]] || fail "a socket would get what is printed"
start="$SECONDS"
kill "$!"
wait "$!"
((SECONDS - start < 3)) || fail "without programs it takes $((SECONDS - start)) seconds to stop"
