#!/usr/bin/env bash
# Builds and tests from a fresh clone: presets dev and asan, unit and service tests.
#
# usage: scripts/test.sh [--all] [--dev]
#   --dev   only the preset dev
#   --all   also the slow set, tsan, clang and the replay of the fuzz corpora
set -euo pipefail
cd "$(dirname "$0")/.."

all=no
presets=(dev asan)
for word in "$@"; do
  case "$word" in
    --all) all=yes ;;
    --dev) presets=(dev) ;;
    *) echo "usage: scripts/test.sh [--all] [--dev]" >&2; exit 2 ;;
  esac
done

extra=()
if [ "$all" = yes ]; then
  presets+=(tsan clang)
  extra+=(valgrind chromium debootstrap lintian dpkg-dev fakeroot file doxygen)
fi
scripts/install-deps.sh "${extra[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

labels=(-L 'unit|service')
[ "$all" = yes ] && labels=()

# The counts of a preset's last run, test by test, and the names of the tests that were skipped or failed, or in which a
# program ended: under the sanitizers one process runs many tests, and ctest counts processes.
tell() {
  awk -v preset="$1" '
    function name(how, test) { sub(/,$/, "", test); count[how]++; names = names "\n  " how " " test }
    /^\[ RUN      \] / { running = $4 }
    /^\[       OK \] / || / ms\)$/ { running = "" }
    /^\[  PASSED  \] [0-9]+ test/ { passed += $4 }
    /^\[  (SKIPPED |FAILED  )\] [0-9]+ test/ { next }
    /^\[  (SKIPPED |FAILED  )\] / && !/ ms\)$/ { name(tolower($2), $4) }
    /^Test Failed\.$/ && running != "" { name("ended", running); running = "" }
    END { printf "== %s: %d tests passed, %d failed, %d skipped%s\n", preset, passed, count["failed"] + count["ended"],
          count["skipped"], names }
  ' "build/$1/Testing/Temporary/LastTest.log"
}
tested=()
trap 'for preset in "${tested[@]}"; do tell "$preset"; done' EXIT

for preset in "${presets[@]}"; do
  echo "== $preset: configure and build" >&2
  cmake --preset "$preset" >"/tmp/qx-configure-$preset.$$" 2>&1 || { cat "/tmp/qx-configure-$preset.$$" >&2; exit 1; }
  rm -f "/tmp/qx-configure-$preset.$$"
  # The slow set's programs are built once, so that they stay whole, and once more only to be run.
  target=(quick_tests)
  [ "$all" = yes ] && target=(all)
  [ "$preset" = dev ] && target=(all all_verify_interface_header_sets)
  cmake --build --preset "$preset" --target "${target[@]}"
  echo "== $preset: test" >&2
  tested+=("$preset")
  ctest --preset "$preset" "${labels[@]}" --output-on-failure
done
