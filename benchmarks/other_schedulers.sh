#!/usr/bin/env bash
# Launch lateness and burst of cron, atd and systemd's timers beside ours, on the same minutes, as a table of ratios.
#
# usage: benchmarks/other_schedulers.sh [MINUTES [JOBS [BURST [ROUNDS]]]]
#   MINUTES  of lateness (3), with JOBS (1) of each scheduler a minute; then each in turn has BURST (200) jobs due on a
#            minute of its own, ROUNDS (1) times: a run takes MINUTES + 4 * ROUNDS minutes and up to two more
#
# As root, in a release tree. Installs nothing: what isn't installed is named and left out; "scripts/install-deps.sh cron
# at" installs both. Where an init runs, Debian's packages start their daemons, too. All daemons run in mount and process
# namespaces of this run, on tables and spools of its own, and end with it; the machine's aren't met.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
tree=${QX_BUILD_TREE:-$here/build/release}

if [ "${1:-}" = --inside ]; then
  # In the namespaces: what the daemons' programs have for paths leads to this run's directory.
  place=$2
  shift 2
  mount --bind "$place/cron.d" /etc/cron.d
  mount --bind "$place/spool" /var/spool/cron
  [ ! -e /etc/crontab ] || mount --bind "$place/crontab" /etc/crontab
  mount -t tmpfs -o mode=755 none /run
  mkdir -p /run/systemd/system
  mkdir -m 700 /run/user-manager
  export XDG_RUNTIME_DIR=/run/user-manager XDG_CONFIG_HOME=$place/config HOME=$place TMPDIR=$place
  [ ! -d "$place/units" ] || { mkdir -p "$place/config/systemd" && ln -s "$place/units" "$place/config/systemd/user"; }
  "$tree/bin/qx_other_schedulers" "$place" "$@"
  exit
fi

case ${1:-1} in *[!0-9]*) sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0" >&2; exit 2 ;; esac
[ "$(id -u)" -eq 0 ] || { echo "other_schedulers.sh: needs root, for namespaces of its own" >&2; exit 77; }
for program in qx_other_schedulers qx_stamp QxSchedService; do
  [ -x "$tree/bin/$program" ] ||
    { echo "build it first: cmake --preset release && ninja -C build/release qx_other_schedulers" >&2; exit 1; }
done
unshare --mount --pid --fork true 2>/dev/null ||
  { echo "other_schedulers.sh: no namespaces can be made here" >&2; exit 77; }

place=$(mktemp -d "${TMPDIR:-/tmp}/qx-others-XXXXXX")
groups=()
run=
clean() {
  trap - EXIT
  # The end of unshare is that of the first process of its namespace, and so of every process in it.
  [ -z "$run" ] || { kill -KILL "$run" 2>/dev/null || true; wait "$run" 2>/dev/null || true; }
  for group in "${groups[@]}"; do
    for _ in 1 2 3 4 5 6 7 8 9 10; do
      find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || true
      [ -d "$group" ] || break
      sleep 0.2
    done
  done
  rm -rf "$place"
}
trap clean EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

chmod 755 "$place"
mkdir "$place/cron.d" "$place/spool"
: >"$place/crontab"
# What has a place takes part.
if [ -x /usr/sbin/cron ]; then mkdir "$place/spool/crontabs"; else echo "cron isn't installed: left out" >&2; fi
if [ -x /usr/sbin/atd ] && [ -x /usr/bin/at ]; then
  install -d -o daemon -g daemon -m 1770 "$place/spool/atjobs" "$place/spool/atspool"
  echo 0 >"$place/spool/atjobs/.SEQ"
  chown daemon:daemon "$place/spool/atjobs/.SEQ"
  chmod 600 "$place/spool/atjobs/.SEQ"
else
  echo "at isn't installed: left out" >&2
fi

# A user manager of systemd needs control groups that it may divide.
if [ -x /lib/systemd/systemd ]; then
  for hierarchy in /sys/fs/cgroup /sys/fs/cgroup/systemd /sys/fs/cgroup/unified; do
    [ -w "$hierarchy/cgroup.procs" ] || continue
    mkdir "$hierarchy/qx-others-$$" 2>/dev/null && groups+=("$hierarchy/qx-others-$$")
  done
fi
if [ ${#groups[@]} -gt 0 ]; then
  mkdir "$place/units"
else
  echo "systemd's timers can't be started here (no systemd, or no control groups to divide): left out" >&2
fi

(
  for group in "${groups[@]}"; do echo "$BASHPID" >"$group/cgroup.procs"; done
  exec setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child --mount-proc \
    "$here/benchmarks/other_schedulers.sh" --inside "$place" "$@"
) &
run=$!
code=0
wait "$run" || code=$?
run=
exit "$code"
