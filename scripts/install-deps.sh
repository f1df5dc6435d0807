#!/usr/bin/env bash
# Installs from Debian's packages what building, testing and the demo need and this machine lacks. As root or with sudo.
#
# usage: scripts/install-deps.sh [PACKAGE...]     further packages to install with the others
set -euo pipefail

build=(g++ clang-14 libclang-rt-14-dev lld-14 cmake ninja-build pkg-config ccache libsystemd-dev libsqlite3-dev
       nlohmann-json3-dev libcli11-dev libtomlplusplus-dev libgtest-dev libgmock-dev librapidcheck-dev libbenchmark-dev
       libical-dev tzdata dbus dbus-daemon libfaketime libssl-dev libxml2-dev libkrb5-dev gss-ntlmssp iproute2 krb5-kdc
       krb5-admin-server krb5-user krb5-pkinit systemd mandoc zsh fish)

missing=()
for package in "${build[@]}" "$@"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
