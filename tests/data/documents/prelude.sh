# What the examples of the documents find: a bus, a state directory, a clock of their own. Sourced by bash before them.
#   QX_PROGRAMS  the built programs     QX_SOURCE    this tree
#   QX_WORK      an empty directory     QX_FAKETIME  the library by which programs get another clock
# Hidden commands of a document use the functions below; each says what it waits for, and fails after a minute.
shopt -s expand_aliases
cd "$QX_WORK"
ln -s "$QX_SOURCE/examples" examples
export HOME=$QX_WORK TMPDIR=$QX_WORK TZ=Europe/Berlin LC_ALL=C.UTF-8 PAGER=cat NO_COLOR=1
export QXSVC_ROOT=$QX_WORK/state
unset NOTIFY_SOCKET XDG_STATE_HOME VISUAL EDITOR

# A bus for both users and root.
mkfifo "$QX_WORK/.address"
dbus-daemon --session --nofork --nopidfile --print-address=1 "--address=unix:path=$QX_WORK/.bus" \
  >"$QX_WORK/.address" 2>/dev/null &
read -r _ <"$QX_WORK/.address"
export DBUS_SESSION_BUS_ADDRESS=unix:path=$QX_WORK/.bus DBUS_SYSTEM_BUS_ADDRESS=unix:path=$QX_WORK/.bus

# A journal that nobody else sees or writes to; the shell has mounts of its own then.
if [ -n "${QX_JOURNAL-}" ]; then
  mount --make-rprivate /
  mount -t tmpfs tmpfs /run/systemd
  mkdir -p /run/log /run/systemd/journal
  mount -t tmpfs tmpfs /run/log
  /lib/systemd/systemd-journald &
  for _ in {1..300}; do
    [ ! -S /run/systemd/journal/socket ] || break
    sleep 0.1
  done
fi

# Sets the clock of all programs from here on, in the zone of the documents. Nobody is told of it, so the service has to
# be stopped meanwhile.
set_clock() {
  printf '%+d\n' $(($(LD_PRELOAD='' date -d "$1" +%s) - $(LD_PRELOAD='' date +%s))) >"$QX_WORK/.clock.new"
  mv "$QX_WORK/.clock.new" "$QX_WORK/.clock"
}
set_clock "2027-01-13 09:00"
export FAKETIME_TIMESTAMP_FILE=$QX_WORK/.clock FAKETIME_DONT_FAKE_MONOTONIC=1 DONT_FAKE_MONOTONIC=1 FAKETIME_NO_CACHE=1
export LD_PRELOAD=$QX_FAKETIME
export PATH=$QX_PROGRAMS:$PATH

# within SECONDS COMMAND...: until it succeeds.
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    ((SECONDS < end)) || { echo "waited in vain for: $*"; return 1; }
    sleep 0.1
  done
}
# shows TEXT COMMAND...: whether the command's output has the text.
shows() {
  local text=$1
  shift
  "$@" 2>&1 | grep -qF -- "$text"
}

service_start() {
  [ -e "$QXSVC_ROOT/registry.db" ] || QxSchedService -RegServer
  QxSchedService --bus session --foreground >>"$QX_WORK/.service" 2>&1 &
  service=$!
  within 60 command qxsched status
}
service_stop() {
  kill "$service"
  wait "$service"
}
service_kill() {
  kill -KILL "$service"
  wait "$service" 2>/dev/null
  true
}
record_start() {
  command qxsched --quiet record &
  recorder=$!
  within 60 shows service-up command qxsched history
  sleep 1  # its first list
}
record_stop() {
  kill -INT "$recorder"
  wait "$recorder"
}
# What is read until Ctrl-C gets it after a second.
qxsched() {
  case " $* " in
    *" monitor "* | *" log -f "* | *" record "*) timeout -s INT 1 "$QX_PROGRAMS/qxsched" "$@" || [ $? = 124 ] ;;
    *) command qxsched "$@" ;;
  esac
}
