#!/usr/bin/env bash
# Builds the Debian packages of this tree for this machine's release: build/package/deb/*.deb.
#
# usage: scripts/package.sh [--revision N] [--no-build]
#   --revision N   the number behind the version (1)
#   --no-build     pack what is built already
set -euo pipefail
cd "$(dirname "$0")/.."

revision=1
build=yes
while [ $# -gt 0 ]; do
  case "$1" in
    --revision) revision=$2; shift ;;
    --no-build) build=no ;;
    *) echo "usage: scripts/package.sh [--revision N] [--no-build]" >&2; exit 2 ;;
  esac
  shift
done

log=$(mktemp)
trap 'rm -f "$log"' EXIT
quietly() { "$@" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }; }

if [ "$build" = yes ]; then
  scripts/install-deps.sh dpkg-dev fakeroot file doxygen
  quietly cmake --preset package
  quietly cmake --build --preset package
fi
umask 022
rm -rf build/package/deb
quietly cpack --config build/package/CPackConfig.cmake -D "CPACK_DEBIAN_PACKAGE_RELEASE=$revision"
ls build/package/deb/*.deb
