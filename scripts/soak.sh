#!/usr/bin/env bash
# Runs the service for MINUTES under a random client and faults of every kind, and beside it the engine under the virtual
# clock; see docs/reliability.md. Ends with 0 when nothing was found and every kind of fault has happened.
#
# usage: scripts/soak.sh [MINUTES]     30 without it; SOAK_SEED=NUMBER repeats the choices of a run
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
[[ $minutes =~ ^[0-9]+([.][0-9]+)?$ ]] || { echo "usage: scripts/soak.sh [MINUTES]" >&2; exit 2; }
scripts/install-deps.sh e2fsprogs
log=$(mktemp)
engine=$(mktemp)
trap 'rm -f "$log" "$engine"' EXIT
{ cmake --preset release && cmake --build --preset release --target QxSchedService qxsched &&
  cmake --preset dev && cmake --build --preset dev --target soak_tests soak_job engine_soak_tests; } >"$log" 2>&1 ||
  { cat "$log" >&2; exit 1; }
export SOAK_MINUTES=$minutes
export SOAK_SEED=${SOAK_SEED:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}
export QX_RELEASE_PROGRAMS=$PWD/build/release/bin

# The small disk is mounted, and the second node has a network of its own. Where root may do neither, or the user isn't
# root, a name space stands in, in which the user counts as root; the disk lies in memory then. Without that as well the
# soak goes on with what is left, and says what it leaves out.
allowed='mount -t tmpfs none "$0" && umount "$0" && mkdir -p "/etc/netns/qxsoak$$" && rmdir "/etc/netns/qxsoak$$" &&
  ip netns add "qxsoak$$" && ip netns del "qxsoak$$"'
inside='mount -t tmpfs none /run && mkdir /run/etc /run/work &&
  mount -t overlay -o lowerdir=/etc,upperdir=/run/etc,workdir=/run/work none /etc &&
  mkdir -p /etc/netns && mount -t tmpfs none /etc/netns && exec "$@"'
scope=()
probe=$(mktemp -d)
if ! bash -c "$allowed" "$probe" 2>/dev/null; then
  scope=(unshare --user --map-root-user --net --mount -- bash -c "$inside" soak)
  if "${scope[@]}" bash -c "$allowed" "$probe" 2>/dev/null; then
    echo "soak: no mounts and networks for this user; a user name space stands in, the disk lies in memory"
  else
    scope=()
    echo "soak: no mounts, no networks and no user name spaces here"
  fi
fi
rmdir "$probe"

build/dev/bin/engine_soak_tests >"$engine" 2>&1 & pid=$!
result=0
"${scope[@]}" build/dev/bin/soak_tests || result=1
wait "$pid" || result=1
grep -v '^\[\|^Running main' "$engine" || true
[ "$result" = 0 ] && echo "soak: clean after $minutes minutes, SOAK_SEED=$SOAK_SEED" ||
  echo "soak: FAILED, SOAK_SEED=$SOAK_SEED" >&2
exit "$result"
