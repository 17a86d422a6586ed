#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The part of try.sh that runs inside the container, as root. It changes the machine that it runs on.
set -uo pipefail
passed=0 failed=0
# check WHAT COMMAND... counts whether the command succeeds.
check() {
    local what="$1" output
    shift
    worked=1
    if output="$("$@" 2>&1)"; then
        passed=$((passed + 1))
        echo "  ok      $what"
    else
        failed=$((failed + 1)) worked=
        echo "  FAILED  $what: $*"
        sed 's/^/          /' <<<"$output"
    fi
}
not() { ! "$@"; }
within() {
    local tries=$1
    shift
    for ((; tries > 0; tries--)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    "$@"
}
as() { setpriv --reuid="$1" --regid="$1" --init-groups env HOME="/home/$1" "${@:2}"; }
their() { as mover env XDG_RUNTIME_DIR="/run/user/$(id -u mover)" "$@"; }
packages() { apt-get install --quiet --yes /try/"$1"/*.deb; }
# Names of processes are cut after 15 characters.
running() { pgrep -x 'samgrd|migrate_service'; }
nothing_left() { ! running && ! systemctl cat samgrd.service 2>/dev/null && [[ ! -e /run/vexa ]]; }
units() { find /etc/systemd /usr/lib/systemd /var/lib/systemd -name 'samgrd*'; }
# The database's own files come and go.
names_of() { find "$1" -not -name '*-wal' -not -name '*-shm' -printf '%P %m %u %s\n' | sort; }

within 300 systemctl is-system-running || systemctl list-units --failed
source=/var/lib/native-migrate/source target=/var/lib/native-migrate/target

echo "Installed"
check "the packages install" packages 1
[[ -n "$worked" ]] || exit 1
check "the manager runs" within 50 systemctl is-active samgrd.service
check "the group is there" getent group migrate
check "the directories are there" test -d $source -a -d $target
useradd --create-home --groups migrate mover
useradd --create-home stranger
mkdir $source/mail $source/large
echo hello >$source/mail/letter
cp /bin/true $source/mail/tool
chown mover $source/mail/letter
chmod 4755 $source/mail/tool
truncate -s 300M $source/large/hole
head -c 40M /dev/urandom >$source/large/noise
check "a member of the group looks at the packages" as mover migratectl packages
check "somebody else may not" not as stranger migratectl packages
check "a package is migrated" as mover migratectl start mail --watch
check "owners and modes are kept" diff <(names_of $source/mail) <(names_of $target/mail)

# A profile of the administrator's goes before the one that is shipped.
install --directory --owner=mover /srv/target
sed 's|"id"|"user": "mover", "id"|; s|${MIGRATE_TARGET}|/srv/target|' /usr/share/vexa/profiles/65792.json \
    >/etc/vexa/profiles/migration.json
check "a reload is taken" systemctl reload samgrd.service
pkill -x migrate_service
check "the service can run as another user" within 50 as mover migratectl start mail --watch
check "it does" pgrep -u mover -x migrate_service
rm /etc/vexa/profiles/migration.json
systemctl restart samgrd.service
for page in samgrd.8 migrate_serviced.8 migratectl.1 vexa-session.1 vexa-profile.5; do
    check "there is a page for $page" test -s "/usr/share/man/man${page##*.}/$page.gz"
done

echo "A program of one's own"
cp -r /usr/share/doc/libnative-migrate-dev/examples /tmp/examples
check "the examples are configured" cmake -S /tmp/examples -B /tmp/examples/build
check "the examples are built" cmake --build /tmp/examples/build -j2
check "an example runs" timeout 20 /tmp/examples/build/load_service 65792

echo "A manager of one's own"
loginctl enable-linger mover
check "the user's systemd is there" within 100 their systemctl --user is-system-running
check "the user's manager starts" their systemctl --user start samgrd.service
check "a manager that was killed is started again" bash -c '
    before=$(systemctl show -P MainPID samgrd); systemctl kill --signal=KILL --kill-whom=main samgrd
    for i in {1..50}; do
        sleep 0.1; now=$(systemctl show -P MainPID samgrd)
        [[ $now != 0 && $now != $before && $(systemctl is-active samgrd) == active ]] && exit 0
    done; exit 1'

echo "Upgraded, while it migrates"
sed -i 's/^#MIGRATE_THROTTLE=.*/MIGRATE_THROTTLE=8000000/' /etc/default/samgrd
systemctl restart samgrd.service
check "a migration begins" as mover migratectl start large
before=$(running)
# shellcheck disable=SC2086
check "the upgrade goes through" packages 2
check "nothing of the old version runs" bash -c 'for pid in '"${before//$'\n'/ }"'; do [[ ! -e /proc/$pid ]] || exit 1; done'
check "the manager runs" within 50 systemctl is-active samgrd.service
check "changed configuration stays" grep -q '^MIGRATE_THROTTLE=8000000' /etc/default/samgrd
check "the migration goes on to its end" within 300 bash -c 'migratectl status >/dev/null; cmp '"$source/large/noise $target/large/noise"

echo "Removed"
kept=$(names_of $target)
check "the packages are removed" dpkg --remove native-migrate libnative-migrate-dev
check "no process, unit or socket is left" within 50 nothing_left
check "configuration is left" grep -q '^MIGRATE_THROTTLE=8000000' /etc/default/samgrd
check "what was migrated is left" test "$kept" = "$(names_of $target)"

echo "Installed again, and purged"
check "the packages install" packages 2
check "the manager runs" within 50 systemctl is-active samgrd.service
check "the service runs" migratectl status
kept=$(names_of $target)
check "the packages are purged" dpkg --purge native-migrate libnative-migrate-dev "$(cd /try/2 && echo libnative-migrate0*.deb | sed 's/_.*//')"
check "no process, unit or socket is left" within 50 nothing_left
check "no configuration is left" not ls -d /etc/default/samgrd /etc/vexa
check "no unit's file is left" test -z "$(units)"
check "what was migrated is left" test "$kept" = "$(names_of $target)"
check "the service's state is left" test -s $target/.migrate-state.db
check "no unit has failed" test -z "$(systemctl list-units --failed --plain --no-legend)"
echo "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
