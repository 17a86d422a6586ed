#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What vexa-session makes of its options, its environment and its end. Needs vexa-session and samgrd on PATH.
set -euo pipefail

root="$(mktemp -d /tmp/vexa-st.XXXXXX)"
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$root"' EXIT
export TMPDIR="$root" ROOT="$root" KOLOG_LEVEL=fatal

fail() {
    echo "$*"
    cat "$root/out" "$root/err"
    exit 1
}
# expect STATUS COMMAND...: it ends within 20 seconds, with that status.
expect() {
    local status=0 wanted="$1"
    shift
    timeout -k 1 20 "$@" >"$root/out" 2>"$root/err" || status=$?
    [[ "$status" == "$wanted" ]] || fail "$*: exit status $status instead of $wanted"
}
says() { [[ "$(cat "$root/out" "$root/err")" == "$1" ]] || fail "instead of: $1"; }
leaves_nothing() { [[ -z "$(find "$root" -name "vexa-session.*")" ]] || fail "a folder is left"; }
# gone PID: that process ends, within 20 seconds; who adopts it need not have waited for it.
gone() {
    for _ in {1..400}; do
        grep -qs "^State:[[:space:]]*[^Z[:space:]]" "/proc/$1/status" || return 0
        sleep 0.05
    done
    fail "process $1 is left"
}
# until FILE: it appears, within 20 seconds.
until_there() {
    for _ in {1..400}; do
        [[ -e "$1" ]] && return
        sleep 0.05
    done
    fail "$1 is missing"
}

# until_missing FOLDER: it goes, within 20 seconds: a session that is killed does not wait for its end.
until_missing() {
    for _ in {1..400}; do
        [[ -e "$1" ]] || return 0
        sleep 0.05
    done
    fail "$1 is left"
}

# Options, and how the command ends.
expect 0 vexa-session --help
grep -q "come last, after --" "$root/out"
expect 0 vexa-session --version
expect 2 vexa-session --no-such-option -- true
expect 2 vexa-session
says "vexa-session: no command is given after --"
expect 2 vexa-session true
expect 0 vexa-session -- true
expect 7 vexa-session -- sh -c 'exit 7'
expect 143 vexa-session -- sh -c 'kill $$'
expect 127 vexa-session -- /no/such/command
says "vexa-session: /no/such/command: No such file or directory"
expect 127 vexa-session -- no-such-command
if ! grep -qs __asan_init "$(command -v vexa-session)"; then
    expect 125 bash -c "exec 3>&-; ulimit -n 4; exec vexa-session -- true"
    says "vexa-session: socket: Too many open files"
    rm -r "$root"/vexa-session.*  # that takes a descriptor, too
fi
expect 126 vexa-session -- "$root"
says "vexa-session: $root: Permission denied"
expect 0 vexa-session -- printf '%s,' a -- --help
says "a,--,--help,"
leaves_nothing

# The environment: a runtime directory of its own, whatever is set outside, in TMPDIR where that leaves room.
show='echo "${VEXA_RUNTIME_DIR%/vexa-session.*} ${NOTIFY_SOCKET-none} $(grep -c "SigBlk:.*0000$" /proc/self/status)"'
show="$show; [ -S \"\$VEXA_RUNTIME_DIR/samgr.sock\" ]; [ \"\$(stat -c %a \"\$VEXA_RUNTIME_DIR\")\" = 700 ]"
long="$root/$(printf 'x%.0s' {1..50})"
for length in 48 49; do
    mkdir -p "${long:0:$length}"
    VEXA_RUNTIME_DIR="$root/outer" TMPDIR="${long:0:$length}" expect 0 vexa-session -- sh -euc "$show"
    says "$([[ "$length" == 48 ]] && echo "${long:0:48}" || echo /tmp) none 1"
done
(cd "$root" && TMPDIR=. expect 0 vexa-session -- sh -euc "$show" && says "/tmp none 1")
TMPDIR="$root/absent" expect 125 vexa-session -- true
says "vexa-session: $root/absent: No such file or directory"
expect 5 env --ignore-signal=CHLD vexa-session -- sh -c 'exit 5'

# The manager: found beside the program or installed, given the profiles, in a session of its own.
samgrd="$(command -v samgrd)"
mkdir "$root/bin" "$root/libexec"
cp "$(command -v vexa-session)" "$root/bin"
ln -s "$(dirname "$samgrd")/../lib" "$root/lib"
expect 125 "$root/bin/vexa-session" -- true
ln -s "$samgrd" "$root/libexec/samgrd"
expect 0 "$root/bin/vexa-session" -- true
printf '#!/bin/sh\necho manager >"$ROOT/beside"; exec "%s" "$@"\n' "$samgrd" >"$root/bin/samgrd"
chmod +x "$root/bin/samgrd"
expect 0 "$root/bin/vexa-session" -- true
[[ -e "$root/beside" ]] || fail "the manager beside the program was not taken"
cat >"$root/manager" <<END
#!/bin/bash
read -r _ _ _ _ _ session _ <"/proc/\$\$/stat"
echo "\$* \$((session == \$\$))" >"$root/arguments"
trap 'echo told >"$root/told"' TERM
"$samgrd" &
echo \$! >"$root/samgrd.pid"
for _ in {1..200}; do wait; done
END
chmod +x "$root/manager"
# It does not end when it is told to: it is killed, and with it what it has started.
start="$SECONDS"
expect 3 vexa-session --samgrd "$root/manager" --profiles "$root/a" --profiles b -- sh -c "exit 3"
((SECONDS - start >= 4 && SECONDS - start <= 9)) || fail "it took $((SECONDS - start)) seconds"
[[ "$(cat "$root/arguments")" == "--profiles $root/a --profiles b 1" ]] || fail "$(cat "$root/arguments")"
[[ -e "$root/told" ]] || fail "the manager was not told to end"
gone "$(cat "$root/samgrd.pid")"
expect 125 vexa-session --samgrd /bin/false -- touch "$root/started"
says "vexa-session: the manager did not become ready and ended with status 1"
expect 125 vexa-session --samgrd "$root/absent" -- touch "$root/started"
printf '#!/bin/sh\necho >"$ROOT/begun"; exec sleep 600\n' >"$root/mute"
chmod +x "$root/mute"
vexa-session --samgrd "$root/mute" -- touch "$root/started" 2>"$root/mute.err" &
mute="$!"  # ten seconds, in which the rest goes on
until_there "$root/begun"
rm "$root/begun"
vexa-session --samgrd "$root/mute" -- touch "$root/started" 2>"$root/err" &
until_there "$root/begun"
kill "$!"
status=0
wait "$!" || status=$?
[[ "$status" == 143 ]] || fail "a session that is stopped before it is ready: $status"

set -m  # else what runs in the background ignores SIGINT
# Signals reach the command, which gets five seconds; then it is killed. Whatever it has left behind ends.
for signal in TERM INT HUP QUIT KILL; do
    rm -f "$root/pid"
    command='trap "sleep 0.1; exit 9" TERM INT HUP QUIT; setsid sleep 600 &
        echo $! $VEXA_RUNTIME_DIR >"$ROOT/new"; mv "$ROOT/new" "$ROOT/pid"; wait'
    vexa-session -- bash -c "$command" &
    until_there "$root/pid"
    kill -s "$signal" "$!"
    status=0
    wait "$!" 2>"$root/err" || status=$?
    [[ "$status" == "$([[ "$signal" == KILL ]] && echo 137 || echo 9)" ]] || fail "$signal: exit status $status"
    read -r left runtime <"$root/pid"
    gone "$left"
    until_missing "$(dirname "$runtime")"
done
# Manager and command end with the session even if that is killed in the middle.
rm "$root/pid"
vexa-session -- sh -c 'echo $$ $PPID $VEXA_RUNTIME_DIR >"$ROOT/new"; mv "$ROOT/new" "$ROOT/pid"; exec sleep 600' &
until_there "$root/pid"
read -r command session runtime <"$root/pid"
# Another process may end while its file is read, which is grep's error and not ours.
children="$(grep -lE "^PPid:\s+$session\$" /proc/[0-9]*/status 2>/dev/null || true)"
manager="$(grep -o "[0-9]*" <<<"$children" | grep -vx "$command")"
kill -KILL "$session"
status=0
wait "$!" || status=$?
[[ "$status" == 137 ]] || fail "a session that is killed: $status"
gone "$command"
gone "$manager"
rm -r "$(dirname "$runtime")" "$root/pid"
start="$SECONDS"
vexa-session -- bash -c 'trap "" TERM; echo >"$ROOT/pid"; sleep 600 & wait; wait' &
until_there "$root/pid"
kill "$!"
status=0
wait "$!" || status=$?
[[ "$status" == 137 ]] || fail "a command that does not end: $status"
((SECONDS - start >= 4 && SECONDS - start <= 9)) || fail "it took $((SECONDS - start)) seconds"
status=0
wait "$mute" || status=$?
[[ "$status" == 125 ]] || fail "a manager that does not become ready: $status"
[[ "$(cat "$root/mute.err")" == "vexa-session: the manager did not become ready" ]] || fail "$(cat "$root/mute.err")"
[[ ! -e "$root/started" ]] || fail "the command was started without a manager"
leaves_nothing
