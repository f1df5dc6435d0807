#!/usr/bin/env bash
# Builds the release preset and prints every figure as a ratio to its yardstick, both timed in turn in one run.
#
# usage: scripts/bench.sh [--json] [NAME...]      NAME: the beginning of a figure's name; --list prints the names
# Beside cron, atd and systemd's timers, as root and for some minutes: benchmarks/other_schedulers.sh [MINUTES ...]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ cmake --preset release && cmake --build --preset release; } >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
# The zone of the yardstick is in its environment from the start, as a program's own would be.
TZ=America/New_York build/release/bin/qx_bench "$@"
