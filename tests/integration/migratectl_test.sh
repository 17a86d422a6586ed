#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The program and the real service: what a service of a test can't show. Needs vexa-session, migratectl and
# migrate_serviced on PATH.
set -euo pipefail

root="$(mktemp -d "${TMPDIR:-/tmp}/migratectl-test.XXXXXX")"
trap 'rm -rf "$root"' EXIT
export MIGRATE_SOURCE="$root/source" MIGRATE_TARGET="$root/target" MIGRATE_THROTTLE=4000000 ROOT="$root"
mkdir -p "$MIGRATE_SOURCE" "$MIGRATE_TARGET"

for throttle in -1 4MB 1.5 18446744073709551616; do
    status=0
    MIGRATE_THROTTLE="$throttle" migrate_serviced --source "$root" --target "$root" 2>"$root/err" || status=$?
    [[ "$status" == 2 ]] && grep -q "throttle: " "$root/err" || { echo "throttle $throttle: status $status"; exit 1; }
done
for program in samgrd migrate_serviced vexa-session migratectl; do
    "$program" --bogus status 2>"$root/err" && exit 1 || [[ $? == 2 ]]
    grep -q -- --bogus "$root/err" || { echo "$program does not name a bad option"; exit 1; }
done
MIGRATE_SOURCE=/no/such vexa-session -- migratectl status 2>"$root/err" && exit 1 || [[ $? == 4 ]]
grep -q "^migratectl.*migrate_serviced: /no/such: No such file" "$root/err"

# refused STATUS REASON ARGUMENTS...: what the service says when it does not start.
refused() {
    local status=0 wanted="$1" reason="$2"
    shift 2
    timeout 20 migrate_serviced "$@" >"$root/out" 2>"$root/err" || status=$?
    [[ "$status" == "$wanted" ]] && grep -qF -- "$reason" "$root/err" || { echo "$*: status $status"; cat "$root/err"; exit 1; }
}
refused 2 "--target is required" --source "$root"
refused 2 "--source is required" --target "$root"
refused 1 "migrate_serviced: $root/none: No such file" --source "$root/none" --target "$root"
VEXA_RUNTIME_DIR="$root/none" refused 1 "no manager answers in $root/none" --source "$root/source" --target "$root/target"
migrate_serviced --version | grep -q "^migrate_serviced [0-9]"
# With a profile whose service nobody starts, and under which one that is started by hand may register.
mkdir "$root/profiles" "$root/empty" "$root/fresh"
echo '{"id":65792,"program":"/bin/false"}' >"$root/profiles/65792.json"
export -f refused
export root
vexa-session --profiles "$root/empty" -- bash -euo pipefail -c '
    refused 1 "the manager did not take the service (result 2)" --source "$root/source" --target "$root/target"
'
vexa-session --profiles "$root/profiles" -- bash -euo pipefail -c '
    KOLOG_LEVEL=info migrate_serviced --source "$root/source" --target "$root/fresh" --state "$root/state" --no-sync \
        --control-group nosuch 2>"$root/log" &
    for _ in {1..200}; do ! migratectl status >"$root/out" 2>&1 || break; sleep 0.05; done
    grep -q "there is no group nosuch: only root" "$root/log" && grep -q "serving $root/source to $root/fresh" "$root/log"
    [[ -s "$root/state" && ! -e "$root/fresh/.migrate-state.db" ]]
    migratectl start
    mkdir "$root/other"
    refused 1 "the manager did not take the service" --source "$root/source" --target "$root/other"
    refused 1 "process $! uses it as its target" --source "$root/source" --target "$root/fresh"
    for _ in 1 2; do kill $!; done
    status=0; wait $! || status=$?
    [[ "$status" == 0 ]] && grep -q "ends on signal 15" "$root/log" || { echo "the end of the service: $status"; cat "$root/log"; exit 1; }
    KOLOG_LEVEL=info migrate_serviced --source "$root/source" --target "$root/fresh" --state "$root/state" \
        --control-group "$(id -gn)" 2>"$root/log" &
    for _ in {1..200}; do ! migratectl status >"$root/out" 2>&1 || break; sleep 0.05; done
    ! grep "there is no group" "$root/log" || exit 1
    kill $!
    wait $!
'

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
    # The output of the last command holds that line.
    says() { grep -qxF -- "$1" "$ROOT/out" || { echo "not said: $1"; cat "$ROOT/out"; exit 1; }; }

    expect 0 start --watch  # nothing to do
    odd=$(printf "odd\033[31m\377\302\233")
    mkdir "$MIGRATE_SOURCE/small" "$MIGRATE_SOURCE/large" "$MIGRATE_SOURCE/$odd" "$MIGRATE_SOURCE"/set-{a,b}
    echo small >"$MIGRATE_SOURCE/small/file"
    head -c 40000000 /dev/zero >"$MIGRATE_SOURCE/large/file"  # ten seconds, of which none is waited for
    for name in a b; do
        echo "{\"bundleName\":\"set\",\"reserved\":true}" >"$MIGRATE_SOURCE/set-$name/manifest.json"
    done
    head -c 2000000 /dev/zero >"$MIGRATE_SOURCE/set-a/file"

    expect 0 packages
    says "odd?[31m??  odd?[31m??  idle"
    expect 0 --json packages
    grep -qF "odd\\u001b[31m\\udcff\\u009b" "$ROOT/out"

    # Who asks for one package is answered for that, whatever becomes of others.
    expect 0 reserve restore set-a
    expect 0 reserve restore set-b --wait  # behind the other one
    mkdir "$MIGRATE_TARGET/large"          # somebody else has that
    expect 1 start
    expect 0 start small --watch
    says "100% finished small"
    expect 3 start --watch
    rmdir "$MIGRATE_TARGET/large"
    expect 1 start absent --watch
    expect 1 task absent
    expect 2 task
    grep -q "package is required" "$ROOT/err"
    expect 2 task --no-such-option
    grep -q "not expected: --no-such-option" "$ROOT/err"
    (
        until grep -q "running *large" "$ROOT/out"; do sleep 0.05; done
        migratectl stop large
    ) &
    expect 3 start large --watch
    wait

    for level in "" -v; do
        expect 0 $level status --stage all
        [[ "$(grep -c GetMigrateStatus "$ROOT/err")" == "$([[ -n "$level" ]] && echo 1 || echo 0)" ]]
    done
    expect 0 trace status  # this side alone, as the others are not traced
    [[ "$(grep -c GET_MIGRATE_STATUS "$ROOT/err")" == 2 ]]
    expect 0 --json -v trace status
    [[ "$(grep -c "^{\"time\":.*GET_MIGRATE_STATUS" "$ROOT/err")" == 2 ]] && grep -q GetMigrateStatus "$ROOT/err"
    grep -q "^{\"result\":0" "$ROOT/out"
    for span in "" "--seconds 60"; do  # until it is ended, or for so long
        migratectl reserve watch $span >"$ROOT/watched" &
        until grep -q "^finished set$" "$ROOT/watched"; do
            kill -0 "$!"
            migratectl reserve clear set-b; migratectl reserve restore set-b --wait >"$ROOT/out"
        done
        kill "$!"
        wait "$!" && exit 1 || [[ "$?" == 143 ]]
    done
    grep -q "^Exit status: 0 done" <(migratectl --help)
    for help in --help "reserve --help" --version; do
        expect 0 $help
    done

    # On a terminal that does not say how wide it is, and on one that does.
    long=$(printf "x%.0s" {1..100})
    mkdir "$MIGRATE_SOURCE/$long"
    for columns in 0 60; do
        script -qec "stty cols $columns; migratectl packages; migratectl start $long --watch" /dev/null >"$ROOT/out"
        # Of the table; that something has ended is said on a line of its own, however long.
        longest=$(tr "\r" "\n" <"$ROOT/out" | sed "s/\x1b\[[0-9]*[A-Z]//g; /xx/d" |
            awk "length > most { most = length } END { print most }")
        [[ "$longest" == "$((columns > 0 ? columns : 80))" ]] || { echo "$columns columns: $longest"; exit 1; }
    done

    for output in ">/dev/full" ">&-"; do
        status=0
        eval "migratectl --json status $output" 2>"$ROOT/err" || status=$?
        [[ "$status" == 5 ]] && grep -q "output" "$ROOT/err" || { echo "$output: exit status $status"; exit 1; }
    done
    VEXA_RUNTIME_DIR="$ROOT/none" expect 4 status
    grep -q "^migratectl.* $ROOT/none/samgr.sock: No such file" "$ROOT/err"
    VEXA_RUNTIME_DIR="$ROOT/none" expect 4 load 1
'

# Process, direction, event and request of the lines of a trace with that word, each process without its number.
told() { grep "$1" "$root/err" | sed -E 's/^[0-9.]+ ([a-z_]+)\[[0-9]+\] (to|from) [a-z_]+\[[0-9]+\] ([a-z]+) ?([^ ]*).*/\1 \2 \3 \4/'; }

export VEXA_RUNTIME_DIR="$root/none"  # no manager serves here
env -u KOLOG_LEVEL migratectl trace status >/dev/null 2>"$root/err"
grep -E " I D0|: Success" "$root/err" && exit 1
number="$(told GET_MIGRATE_STATUS | awk 'NR == 1 { print $4 }')"
diff <(told GET_MIGRATE_STATUS) - <<END
migratectl to request $number
migrate_service from request $number
migrate_service to reply $number
migratectl from reply $number
END
vexa-session --trace -- bash -euo pipefail -c '
    migratectl load 65792
    pgrep -f "^[^ ]*migrate_serviced --source $MIGRATE_SOURCE " >"$ROOT/pid"
    kill -9 "$(cat "$ROOT/pid")"
    migratectl status
' >/dev/null 2>"$root/err"
grep -q " samgrd\[[0-9]*\] from [a-z_]*\[$(cat "$root/pid")\] death$" "$root/err" || { cat "$root/err"; exit 1; }
[[ "$(grep -c "there is no group" "$root/err")" == 0 ]]  # as none was named
# Not by grep -q, which would end before the trace is whole, and the command with it.
migratectl trace --json status 2>&1 >/dev/null | grep "^{\"time\":.*GET_MIGRATE_STATUS.*}$" >/dev/null
mkdir "$root/bin"
ln -s "$(dirname "$(command -v migratectl)")/../lib" "$root/lib"
cp "$(command -v migratectl)" "$root/bin"  # without vexa-session beside it
"$root/bin/migratectl" trace status 2>"$root/err" && exit 1 || [[ $? == 2 ]]
grep -q "/vexa-session: No such file" "$root/err"
