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
  extra+=(clang-14 libclang-rt-14-dev valgrind chromium debootstrap lintian dpkg-dev fakeroot file doxygen mandoc)
fi
scripts/install-deps.sh "${extra[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

labels=(-L 'unit|service')
[ "$all" = yes ] && labels=()

for preset in "${presets[@]}"; do
  echo "== $preset: configure and build" >&2
  cmake --preset "$preset" >"/tmp/qx-configure-$preset.$$" 2>&1 || { cat "/tmp/qx-configure-$preset.$$" >&2; exit 1; }
  rm -f "/tmp/qx-configure-$preset.$$"
  cmake --build --preset "$preset"
  [ "$preset" = dev ] && cmake --build --preset dev --target all_verify_interface_header_sets
  echo "== $preset: test" >&2
  ctest --preset "$preset" "${labels[@]}" --output-on-failure
done
