#!/usr/bin/env bash
# Writes the source archive qxsched-VERSION.tar.xz: what git tracks, as it is in the working tree; of a tree that came
# out of such an archive everything but build/. The same tree gives the same bytes.
#
# usage: scripts/source-archive.sh [DIR]     DIR: where to (the present folder)
set -euo pipefail
target=$(cd "${1:-.}" && pwd)
cd "$(dirname "$0")/.."

version=$(sed -n 's/^project(QxSched VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=qxsched-$version
if [ -e .git ]; then
  git ls-files -z | while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done
else
  find . -path ./build -prune -o \( -type f -o -type l \) -printf '%P\0'
fi | sort -z | tar --create --no-recursion --sort=none --format=ustar --owner=0 --group=0 --numeric-owner \
  --mode=go=rX,u+rw --mtime=@315532800 --transform "s,^,$name/," --null --files-from=- | xz -9e >"$target/$name.tar.xz.new"
mv "$target/$name.tar.xz.new" "$target/$name.tar.xz"
echo "$target/$name.tar.xz"
