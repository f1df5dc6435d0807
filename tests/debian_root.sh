# Sourced by the tests that put the Debian packages into a root of their own: packages_test.sh, systemd_test.sh.
# Sets `work`, the folder for roots and logs, of its argument, and `release`.

release=bookworm
work=$(mkdir -p "$1" && cd "$1" && pwd)
test_name=$(basename "$0" .sh)

skip() { echo "${test_name^^}: NOTHING WAS TESTED: $*" >&2; exit 77; }
fail() { echo "$test_name: $*" >&2; exit 1; }
step() { printf '== %s\n' "$*"; }

need_root_and() {  # PROGRAM...
  [ "$(id -u)" -eq 0 ] || skip "only root can install into a root of its own"
  local program
  for program in unshare dpkg-deb debootstrap "$@"; do
    command -v "$program" >/dev/null || skip "$program isn't installed (scripts/install-deps.sh debootstrap lintian)"
  done
  unshare --mount --pid --fork true 2>/dev/null || skip "no namespaces of its own are allowed here"
}

# Runs a command within a root, in namespaces that take every process along when they end.
within_root() {  # ROOT COMMAND...
  local root=$1
  shift
  # shellcheck disable=SC2016
  unshare --mount --pid --fork chroot "$root" /bin/sh -c 'mount -t proc proc /proc && exec "$@"' sh "$@"
}

# For the scripts that run inside a root, beside `step` and a `fail` of their own; made part of them by inside_words.
quietly() { "$@" >/log 2>&1 || { cat /log >&2; fail "failed: $*"; }; }
# shellcheck source=scripts/within.sh
. scripts/within.sh
inside_words() { declare -f step quietly within; }

# A root of the release with nothing but what every system has; kept as an archive for the next time.
make_bare_root() {  # ROOT
  rm -rf "$1"
  if [ ! -e "$work/$release.tar" ]; then
    step "A bare root of $release"
    local mirror
    mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $release" 2>/dev/null | grep -v security | head -n 1)
    debootstrap --variant=minbase "$release" "$1" "${mirror:-http://deb.debian.org/debian}" >"$work/debootstrap.log" 2>&1 ||
      { tail -n 20 "$work/debootstrap.log" >&2; fail "debootstrap failed"; }
    tar -C "$1" -cf "$work/$release.tar.new" .
    mv "$work/$release.tar.new" "$work/$release.tar"
  else
    mkdir "$1"
    tar -C "$1" -xf "$work/$release.tar"
  fi
  mkdir -p "$work/archives"
  cp -n "$work"/archives/*.deb "$1/var/cache/apt/archives/" 2>/dev/null || true
  cp --remove-destination /etc/resolv.conf "$1/etc/resolv.conf"
  echo 'APT::Keep-Downloaded-Packages "true";' >"$1/etc/apt/apt.conf.d/90keep"
}

keep_downloads() {  # ROOT
  cp -n "$1"/var/cache/apt/archives/*.deb "$work/archives/" 2>/dev/null || true
}
