#!/usr/bin/env bash
# Makes the source archive, builds the programs out of it alone, runs the demo with them, and has the unpacked tree make
# the same archive again.
#
# usage: tests/source_archive_test.sh WORK
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p "$1"
work=$(cd "$1" && pwd)
rm -rf "$work"/*

fail() { echo "source_archive_test: $*" >&2; exit 1; }

archive=$(scripts/source-archive.sh "$work")
mkdir "$work/again"
tar -C "$work" -xf "$archive"
tree=${archive%.tar.xz}
[ ! -e "$tree/build" ] || fail "the archive holds a build folder"
[ ! -e "$tree/.git" ] || fail "the archive holds a repository"
cmp "$archive" "$("$tree/scripts/source-archive.sh" "$work/again")" || fail "the unpacked tree makes another archive"

cd "$tree"
cmake --preset release -DQX_BUILD_BENCHMARKS=OFF >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "it isn't configured"; }
cmake --build --preset release >"$work/log" 2>&1 || { tail -n 50 "$work/log" >&2; fail "it isn't built"; }
PATH=$tree/build/release/bin:$PATH scripts/demo.sh --installed >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "the demo failed"; }
cd "$work"
rm -rf "$work"/*
