#!/usr/bin/env bash
# Shows the scheduler at work, in a throw-away directory and on a message bus of its own: a schedule is added, its job
# starts in the second it is due, a restart brings the schedule back, and it is deleted.
# Fails unless every step really happened. Needs neither root nor systemd; takes about fifteen seconds.
#
# usage: scripts/demo.sh [--installed]     --installed: the programs on PATH, in place of those built here
set -euo pipefail
cd "$(dirname "$0")/.."

# --- the programs -----------------------------------------------------------------------------------------------------

if [ "${1:-}" = --installed ]; then
  for program in QxSchedService qxsched; do
    command -v $program >/dev/null || { echo "demo: $program isn't on PATH" >&2; exit 1; }
  done
  service=$(command -v QxSchedService) client=$(command -v qxsched)
else
  preset=dev
  [ -e build/dev/build.ninja ] || preset=release
  if [ ! -e "build/$preset/build.ninja" ] || ! command -v dbus-daemon >/dev/null; then
    scripts/install-deps.sh
    echo "configuring (preset $preset)"
    cmake --preset "$preset" >/dev/null
  fi
  echo "building the programs (preset $preset)"
  cmake --build --preset "$preset" --target QxSchedService qxsched >/dev/null
  service=$PWD/build/$preset/bin/QxSchedService client=$PWD/build/$preset/bin/qxsched
fi

# --- helpers ----------------------------------------------------------------------------------------------------------

# shellcheck source=scripts/within.sh
. scripts/within.sh

export TZ=UTC0  # the demo's own zone: no change of the clocks can fall into it
unset NOTIFY_SOCKET QXSVC_ROOT
work=$(mktemp -d "${TMPDIR:-/tmp}/qx-demo-XXXXXX")
state=$work/state
bus_pid='' service_pid='' monitor_pid='' reader_pid=''

end() {  # ends a process that was started here, and waits for it
  [ -z "$1" ] || { kill "-$2" "$1" 2>/dev/null || true; wait "$1" 2>/dev/null || true; }
}
clean_up() {
  local code=$?
  trap - EXIT
  end "$monitor_pid" TERM
  end "$reader_pid" TERM
  end "$service_pid" TERM
  end "$bus_pid" TERM
  rm -rf "$work"
  [ $code -eq 0 ] || echo "demo: FAILED" >&2
  exit $code
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "demo: $*" >&2
  for log in "$work/service.out" "$state"/logs/*.log; do
    [ ! -s "$log" ] || { echo "--- the last lines of ${log##*/}:" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}
step() { printf '\n== %s\n' "$*"; }
qxsched() { "$client" --root "$state" --bus "$address" "$@"; }
run() {  # shows a command and runs it
  printf '$ qxsched %s\n' "$*"
  qxsched "$@"
}
start_service() {
  "$service" --root "$state" "--bus=$address" --foreground >"$work/service.out" 2>&1 &
  service_pid=$!
  within 20 qxsched status || fail "the service doesn't answer"
}

# --- the demo ---------------------------------------------------------------------------------------------------------

step "A message bus and a registered service, in $work"
mkfifo "$work/address"
dbus-daemon --session --nofork --nopidfile --print-address=1 "--address=unix:tmpdir=$work" \
  >"$work/address" 2>"$work/bus.out" &
bus_pid=$!
read -r address <"$work/address" || { cat "$work/bus.out" >&2; fail "the message bus doesn't start"; }
"$service" --root "$state" "--bus=$address" -RegServer || fail "the service can't be registered"
start_service
run status

step "Whoever listens hears of everything that happens (qxsched monitor)"
mkfifo "$work/monitor"
: >"$work/events"
while IFS= read -r line; do
  printf '%s\n' "$line" >>"$work/events"
  printf '    event: %s\n' "$line"
done <"$work/monitor" &
reader_pid=$!
"$client" --bus "$address" monitor >"$work/monitor" 2>"$work/monitor.err" &
monitor_pid=$!
within 10 grep -q 'waiting for events' "$work/monitor.err" || fail "monitor doesn't start"
echo "listening"

step "A job that writes down the time, due in five seconds"
cat >"$work/job.sh" <<JOB
#!/bin/sh
date +%s.%N >"$work/ran.new"
printf '%s\n' "\$*" >"$work/arguments"
mv "$work/ran.new" "$work/ran"
JOB
chmod +x "$work/job.sh"
due=$(($(date +%s) + 5))
sed -e "s|^wrapper .*|wrapper     = \"$work/job.sh\"|" \
    -e "s|^start .*|start       = \"$(date -d "@$due" +%H:%M:%S)\"|" examples/demo.toml >"$work/demo.toml"
grep -v '^#' "$work/demo.toml"
echo
run check "$work/demo.toml" || fail "the schedule file has findings"
id=$(qxsched add "$work/demo.toml") || fail "the schedule can't be added"
echo "\$ qxsched add demo.toml"
echo "$id"
within 5 grep -q "Schedule_Add .*$id" "$work/events" || fail "no event tells of the new schedule"
run list
qxsched list --json | grep -q "\"id\":\"$id\".*\"next_window\":$due[,}]" || fail "the schedule isn't listed for its second"

step "It is due at $(date -d "@$due" +%H:%M:%S)"
within 20 test -e "$work/ran" || fail "the job didn't run"
ran=$(cat "$work/ran")
echo "the job wrote: $ran (due: $due)"
[ "${ran%%.*}" = "$due" ] || fail "the job ran at $ran, not within the second $due"
grep -qF "${id:1:36}" "$work/arguments" || fail "the job wasn't given its schedule's ID"
within 5 grep -q "NextTimeWindow_Modify .*$id" "$work/events" || fail "no event tells of the next window"
tomorrow=$((due + 86400))
run list
qxsched list --json | grep -q "\"next_window\":$tomorrow[,}]" || fail "the next window isn't tomorrow's"

step "The service is stopped and started again"
kill -TERM "$service_pid"
code=0
wait "$service_pid" || code=$?
service_pid=''
[ $code -eq 0 ] || fail "the service ended with code $code"
code=0
qxsched list >/dev/null 2>"$work/stopped.err" || code=$?
[ $code -eq 6 ] || fail "a stopped service was asked: code $code in place of 6"
cat "$work/stopped.err"
start_service
run list
qxsched list --json | grep -q "\"id\":\"$id\".*\"next_window\":$tomorrow[,}]" || fail "the restart lost the schedule"

step "It is deleted; its file stays as a backup"
run rm "$id" --yes || fail "the schedule can't be deleted"
within 5 grep -q "Schedule_Delete .*$id" "$work/events" || fail "no event tells of the deletion"
run list
[ "$(qxsched list --json)" = '[]' ] || fail "the schedule is still listed"
ls "$state"/backups/*.toml >/dev/null || fail "there is no backup"
[ "$(cat "$work/ran")" = "$ran" ] || fail "the job ran a second time"

step "Everything happened as it should"
