#!/usr/bin/env bash
# Boots a root of the packages' release with systemd as its first process, in namespaces of its own, installs the packages
# there and has systemd start, stop, restart, revive and activate the units as an administrator would.
# Needs root, namespaces, a control group of version 2, debootstrap and a mirror of Debian; ends with 77, and says so, where
# something of that is missing or systemd doesn't come up.
#
# usage: tests/systemd_test.sh WORK      WORK: as packages_test.sh has it, not at the same time
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/debian_root.sh
. tests/debian_root.sh

need_root_and findmnt
groups=$(findmnt --noheadings --output TARGET --types cgroup2 | head -n 1)
[ -n "$groups" ] || skip "no control groups of version 2 are mounted here"

step "The packages"
scripts/package.sh --revision 1 >/dev/null
mkdir -p "$work/booted-debs"
rm -f "$work"/booted-debs/*
cp build/package/deb/*.deb "$work/booted-debs"

# --- a root that can be booted ----------------------------------------------------------------------------------------

root=$work/booted
make_bare_root "$root"
cp -r "$work/booted-debs" "$root/debs"
cat >"$root/prepare.sh" <<'PREPARE'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin
apt-get update
apt-get install -y --no-install-recommends systemd systemd-sysv dbus procps
apt-get clean
# Inside there is no network: what the packages need is there already.
apt-get install -y --no-install-recommends --download-only /debs/*.deb
PREPARE
step "A root with systemd"
within_root "$root" /bin/bash /prepare.sh >"$work/prepare.log" 2>&1 ||
  { tail -n 20 "$work/prepare.log" >&2; fail "the root can't be prepared"; }
keep_downloads "$root"
cat >"$root/etc/systemd/system/inside.service" <<'UNIT'
[Unit]
Description=What the test does
After=dbus.service
[Service]
Type=exec
ExecStart=/bin/bash /inside.sh
StandardOutput=file:/inside.log
StandardError=file:/inside.log
UNIT
mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
ln -s ../inside.service "$root/etc/systemd/system/multi-user.target.wants/inside.service"
ln -sf /lib/systemd/system/multi-user.target "$root/etc/systemd/system/default.target"

# --- what is done inside ----------------------------------------------------------------------------------------------

inside_words >"$root/inside.sh"
cat >>"$root/inside.sh" <<'INSIDE'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin TZ=UTC0
: >/inside.began
trap 'echo $? >/inside.code.new; mv /inside.code.new /inside.code' EXIT
unit=QxSchedService.service
state=/var/lib/qxsvc
fail() {
  echo "systemd_test: $*"
  systemctl status --no-pager --full "$unit" qxsched-record.service 2>&1 | tail -n 40 || true
  journalctl --no-pager -n 60 2>/dev/null || true
  exit 1
}
property() { systemctl show --value -p "$1" "${2:-$unit}"; }
is() { [ "$(property "$1" "${3:-$unit}")" = "$2" ]; }  # PROPERTY VALUE [UNIT]
status_text_has() { systemctl status --no-pager "$unit" | grep -F "Status: \"" | grep -qF "$1"; }
# Adds a schedule whose job tells when and as whom it began, then lives for so long.
add_job() {  # SECOND NAME SECONDS-TO-LIVE
  cat >/jobs/$2.sh <<JOB
#!/bin/sh
echo "\$(date +%s.%N) \$(id -un)" >/jobs/$2.new
mv /jobs/$2.new /jobs/$2.ran
exec sleep $3
JOB
  chmod 755 /jobs/$2.sh
  cat >/jobs/$2.toml <<TOML
name = "$2"
application = "test"
object_id = "$2"
[job]
wrapper = "/jobs/$2.sh"
[window]
start = "$(date -d "@$1" +%H:%M:%S)"
duration = "1h"
[days]
every = ["sun", "mon", "tue", "wed", "thu", "fri", "sat"]
TOML
  qxsched add /jobs/$2.toml
}
ran_on_its_second() {  # SECOND NAME
  within 20 test -e /jobs/$2.ran || fail "the job $2 didn't run"
  [ "$(cut -d. -f1 /jobs/$2.ran)" = "$1" ] || fail "the job $2 ran at $(cat /jobs/$2.ran), not in the second $1"
}
job_lives() { pgrep -f "^sleep $1\$"; }
mkdir -m 1777 /jobs

step "systemd is process 1"
[ "$(cat /proc/1/comm)" = systemd ] || fail "it is $(cat /proc/1/comm)"
within 30 systemctl is-active multi-user.target || fail "the target is $(systemctl is-active multi-user.target)"

step "The packages start the service, which says when it is ready"
quietly dpkg -i /var/cache/apt/archives/*.deb /debs/*.deb
is ActiveState active || fail "the service is $(property ActiveState)"
is Type notify && is SubState running || fail "$(property Type), $(property SubState)"
is StatusText "running; no job is due" || fail "its status is: $(property StatusText)"
is UnitFileState enabled || fail "the unit is $(property UnitFileState)"
# There are no manual pages and no man here.
systemd-analyze verify --man=no /usr/lib/systemd/system/$unit /usr/lib/systemd/system/qxsched-record.service >/log 2>&1 &&
  [ ! -s /log ] || { cat /log; fail "the units have findings"; }
useradd --no-create-home --groups qxsched member
useradd --no-create-home stranger
runuser -u member -- qxsched --bus system list >/log 2>&1 || { cat /log; fail "a member of the group is refused"; }
if runuser -u stranger -- qxsched --bus system list >/dev/null 2>&1; then fail "a stranger is served"; fi
[ "$(qxsched list --json)" = '[]' ] || fail "a list that isn't empty"

step "A job starts on its second, and the status tells of it before"
due=$(($(date +%s) + 5))
add_job $due long 3001 >/dev/null
within 3 status_text_has "running; next job at $(date -d "@$due" '+%F %T')" || fail "its status is: $(property StatusText)"
ran_on_its_second $due long
within 3 is StatusText "running; next job at $(date -d "@$((due + 86400))" '+%F %T')" || fail "its status is: $(property StatusText)"

step "A stop leaves the job alive, and ends well"
main=$(property MainPID)
quietly systemctl stop $unit
is ActiveState inactive && is Result success || fail "$(property ActiveState), $(property Result)"
[ ! -e /proc/$main ] || fail "the process is still there"
job_lives 3001 >/dev/null || fail "the job went with the service"

step "The bus starts the unit for its first client"
qxsched list --json | grep -q '"name":"long"' || fail "no list"
is ActiveState active || fail "the bus started another service: $(property ActiveState)"
job_lives 3001 >/dev/null || fail "the job went with the start"

step "A restart leaves the job alive"
main=$(property MainPID)
quietly systemctl restart $unit
[ "$(property MainPID)" != "$main" ] && is ActiveState active || fail "not restarted"
job_lives 3001 >/dev/null || fail "the job went with the restart"

step "A killed service is started again"
main=$(property MainPID)
kill -KILL "$main"
restarted() { is ActiveState active && ! is MainPID "$main"; }
within 20 restarted || fail "$(property ActiveState)"
qxsched list --json | grep -q '"name":"long"' || fail "no list"
job_lives 3001 >/dev/null || fail "the job went with the kill"

step "The recorder"
quietly systemctl enable --now qxsched-record.service
is ActiveState active qxsched-record.service || fail "$(property ActiveState qxsched-record.service)"
within 10 test -s /var/lib/qxsched-record/history.db
due=$(($(date +%s) + 5))
add_job $due recorded 0 >/dev/null
ran_on_its_second $due recorded
recorded() { qxsched history --file /var/lib/qxsched-record/history.db --json | grep -q recorded; }
within 10 recorded || { qxsched history --file /var/lib/qxsched-record/history.db; fail "nothing was recorded"; }
quietly systemctl restart $unit
is ActiveState active qxsched-record.service || fail "the recorder went with the service"
quietly systemctl stop qxsched-record.service
is Result success qxsched-record.service || fail "the recorder: $(property Result qxsched-record.service)"
quietly systemctl start qxsched-record.service

step "An account of its own"
useradd --system --no-create-home keeper
qxsched config set account keeper >/log 2>&1 || { cat /log; fail "config set account"; }
systemctl daemon-reload
quietly systemctl restart $unit
main=$(property MainPID)
[ "$(stat -c %U /proc/$main)" = keeper ] || fail "it runs as $(stat -c %U /proc/$main)"
[ -z "$(find $state ! -user keeper)" ] || fail "not the account's: $(find $state ! -user keeper)"
due=$(($(date +%s) + 5))
add_job $due kept 0 >/dev/null
ran_on_its_second $due kept
[ "$(cut -d' ' -f2 /jobs/kept.ran)" = keeper ] || fail "the job ran as $(cat /jobs/kept.ran)"
qxsched config set account LocalSystem >/log 2>&1 || { cat /log; fail "config set account"; }
systemctl daemon-reload
quietly systemctl restart $unit
[ "$(stat -c %U /proc/$(property MainPID))" = root ] || fail "not root again"
qxsched list --json | grep -q '"name":"kept"' || fail "no list"

step "The strict profile"
mkdir -p /etc/systemd/system/$unit.d
cp /usr/share/doc/qxsched-service/examples/strict.conf /etc/systemd/system/$unit.d/50-strict.conf
printf '[Service]\nReadWritePaths=/jobs\n' >/etc/systemd/system/$unit.d/60-jobs.conf
systemctl daemon-reload
quietly systemctl restart $unit
is NoNewPrivileges yes || fail "the profile isn't in force"
due=$(($(date +%s) + 5))
add_job $due strict 0 >/dev/null
ran_on_its_second $due strict
rm /etc/systemd/system/$unit.d/50-strict.conf /etc/systemd/system/$unit.d/60-jobs.conf
systemctl daemon-reload
quietly systemctl restart $unit

step "An upgrade restarts the service and leaves the job alive"
main=$(property MainPID)
quietly dpkg -i /debs/qxsched-service_*.deb /debs/qxsched_*.deb
[ "$(property MainPID)" != "$main" ] && is ActiveState active || fail "not restarted"
job_lives 3001 >/dev/null || fail "the job went with the upgrade"
is ActiveState active qxsched-record.service || fail "the recorder went with the upgrade"

step "A removal stops both, the job goes on; a purge takes the rest"
quietly dpkg --purge qxsched qxsched-service
! pgrep -x QxSchedService || fail "the service still runs"
! pgrep -x qxsched || fail "the recorder still runs"
job_lives 3001 >/dev/null || fail "the job went with the packages"
[ ! -e $state ] && [ ! -e /var/lib/qxsched-record ] || fail "the state is still there"
is LoadState not-found || fail "the unit is $(property LoadState)"
[ -z "$(systemctl list-units --failed --no-legend)" ] || fail "failed: $(systemctl list-units --failed --no-legend)"
INSIDE

# --- the boot ---------------------------------------------------------------------------------------------------------

# What systemd expects of whoever starts it in a container (its CONTAINER_INTERFACE).
cat >"$work/boot.sh" <<'BOOT'
set -eu
root=$1
mount --make-rprivate /
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=755,nosuid tmpfs "$root/dev"
mount -t tmpfs -o mode=755,nosuid,nodev tmpfs "$root/run"
for device in null zero full random urandom tty; do
  touch "$root/dev/$device"
  mount --bind "/dev/$device" "$root/dev/$device"
done
mkdir "$root/dev/pts" "$root/dev/shm" "$root/.old"
mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts "$root/dev/pts"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
for stream in 0:stdin 1:stdout 2:stderr; do ln -s "fd/${stream%:*}" "$root/dev/${stream#*:}"; done
cd "$root"
pivot_root . .old
exec chroot . /bin/sh -c 'umount -l /.old && exec env -i container=qxsched-test PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  /lib/systemd/systemd --system --log-target=console' </dev/null
BOOT

# A group of its own, so that the one inside sees nothing of the host's.
group=$groups/qxsched-test-$$
mkdir "$group" 2>/dev/null || skip "no control group can be made in $groups"
machine=''
shut_down() {
  [ -z "$machine" ] || { kill -KILL "$machine" && wait "$machine"; } 2>/dev/null || true
  local turns=100  # the group of a killed process empties a little later
  until find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; do
    ((turns-- > 0)) || { echo "$test_name: $group stays" >&2; break; }
    sleep 0.1
  done
}
trap shut_down EXIT
(
  echo "$BASHPID" >"$group/cgroup.procs"
  exec unshare --pid --mount --uts --ipc --net --cgroup --fork --kill-child bash "$work/boot.sh" "$root"
) >"$work/boot.log" 2>&1 &
machine=$!
for ((turn = 0; turn < 6000; ++turn)); do
  if [ -e "$root/inside.code" ] || [ ! -e "/proc/$machine" ]; then break; fi
  [ $turn -lt 600 ] || [ -e "$root/inside.began" ] || break
  sleep 0.1
done
[ -e "$root/inside.began" ] || { tail -n 20 "$work/boot.log" >&2; skip "systemd doesn't come up in namespaces here"; }
cat "$root/inside.log"
[ -e "$root/inside.code" ] || fail "it didn't come to its end"
code=$(cat "$root/inside.code")
[ "$code" -eq 0 ] || exit "$code"
shut_down
trap - EXIT
rm -rf "$root"
step "Everything happened as it should"
