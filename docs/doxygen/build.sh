#!/usr/bin/env bash
# Builds the reference of the installed libraries with Doxygen. A warning is an error, but for a member of the platform
# floor and of the foundation without words: one whose name and type say all has no comment there. A type or a file without
# words is an error, and so is whatever a program meets of the client interface and of the rules library; only that a value
# can be compared, moved and assigned goes without saying.
#
# usage: docs/doxygen/build.sh BUILD OUTPUT     BUILD: a build folder, whose install rules say which headers are public
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$(cd "$1" && pwd)
mkdir -p "$2"
output=$(cd "$2" && pwd)
rm -rf "$output"/*

for component in client-dev foundation-dev rules-dev; do
  for script in client foundation common; do
    sed -n 's/.*FILES "\([^"]*\.h\)".*/\1/p' "$build/$script/cmake_install.cmake"
  done
done | sort -u >"$output/headers"
QX_DOXYGEN_INPUT=$(sed "s,^$PWD/,," "$output/headers" | tr '\n' ' ') QX_DOXYGEN_OUTPUT=$output \
  doxygen docs/Doxyfile 2>"$output/all-warnings"
awk -v told='/(client|interface|common)/[^/]*[.]h:' '
  /warning: Member .* is not documented/ && ($0 !~ told || / operator[=!<]/) { next }
  { print; bad = 1 }
  END { exit bad }' "$output/all-warnings" >&2
