#!/usr/bin/env bash
# Builds the Debian packages, has lintian look at them, and installs, uses, upgrades, removes and purges them in a bare
# root of the release that they are for. Needs root, debootstrap, lintian and a mirror of Debian (the machine's own);
# ends with 77, and says so, where something of that is missing.
#
# usage: tests/packages_test.sh WORK      WORK: a folder for roots and logs; the bare root is kept there as an archive
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tests/debian_root.sh
. tests/debian_root.sh

state=/var/lib/qxsvc
account_dropin=/etc/systemd/system/QxSchedService.service.d/account.conf

need_root_and lintian

# --- the packages -----------------------------------------------------------------------------------------------------

step "Two revisions of the packages"
rm -rf "$work/debs"
mkdir -p "$work/debs/1" "$work/debs/2"
scripts/package.sh --revision 2 >/dev/null
cp build/package/deb/*.deb "$work/debs/2"
scripts/package.sh --no-build --revision 1
cp build/package/deb/*.deb "$work/debs/1"

step "What lintian says"
# They are not for Debian's own archive, so no bug of it is closed by them.
lintian --allow-root --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "$work"/debs/1/*.deb ||
  fail "lintian has findings"

step "Packing again gives the same files"
(cd "$work/debs/1" && for deb in *.deb; do dpkg-deb --fsys-tarfile "$deb" | tar -xO --wildcards './usr/*' 2>/dev/null |
  sha256sum; done) >"$work/first.sum"
scripts/package.sh --no-build --revision 1 >/dev/null
(cd build/package/deb && for deb in *.deb; do dpkg-deb --fsys-tarfile "$deb" | tar -xO --wildcards './usr/*' 2>/dev/null |
  sha256sum; done) >"$work/second.sum"
cmp "$work/first.sum" "$work/second.sum" || fail "two runs pack different files"

# --- a bare root ------------------------------------------------------------------------------------------------------

root=$work/root
make_bare_root "$root"
cp -r "$work/debs" "$root/debs"
mkdir -p "$root/source/scripts" "$root/source/examples"
cp scripts/demo.sh scripts/within.sh "$root/source/scripts"
cp examples/*.toml "$root/source/examples"

# The rest runs inside, in namespaces that take every process along when they end.
cat >"$root/inside.sh" <<INSIDE
state=$state
account_dropin=$account_dropin
$(inside_words)
INSIDE
cat >>"$root/inside.sh" <<'INSIDE'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin

fail() { echo "packages_test: $*" >&2; exit 1; }
gone() { ! pgrep -x QxSchedService; }
names() { find / -xdev \( -path /debs -o -path /source -o -path /proc -o -path /var/cache/apt -o -path /tmp \) -prune -o \
  -iname '*qx*' -print | sort; }
record_account() { qxsched reg get 'HKLM\SYSTEM\CurrentControlSet\Services\QxSchedService' ObjectName; }

[ -z "$(names)" ] || fail "the root isn't bare: $(names)"
quietly apt-get update

step "Installing"
quietly apt-get install -y --no-install-recommends procps /debs/1/*.deb
getent group qxsched >/dev/null || fail "there is no group"
[ "$(stat -c '%a %U' $state)" = "700 root" ] || fail "the state directory: $(stat -c '%a %U' $state)"
[ -e $state/registry.db ] || fail "the service isn't registered"
[ -d "$state/Documents and Settings/All Users/Application Data/KORVANE/QxSnapExchangeBackup" ] ||
  fail "there is no default directory of schedules"
[ "$(readlink /etc/systemd/system/multi-user.target.wants/QxSchedService.service)" = \
  "$(ls -d /lib/systemd/system/QxSchedService.service)" ] || fail "the unit isn't enabled"
for file in /usr/lib/systemd/system/QxSchedService.service.d/10-node-channel-fence.conf \
  /usr/share/dbus-1/system-services/com.korvane.QxSched1.service /usr/share/dbus-1/system.d/com.korvane.QxSched1.conf \
  /usr/share/bash-completion/completions/qxsched /usr/share/zsh/vendor-completions/_qxsched \
  /usr/share/fish/vendor_completions.d/qxsched.fish; do
  [ -s $file ] || fail "$file is missing"
done
ldconfig -p | grep -q libqxschedclient.so.0 || fail "the loader doesn't know the client library"

[ ! -e /etc/systemd/system/multi-user.target.wants/qxsched-record.service ] || fail "nobody asked for the recorder"

step "The demo"
bash /source/scripts/demo.sh --installed >/log 2>&1 || { cat /log; fail "the demo failed"; }
grep -q 'Everything happened as it should' /log || fail "the demo didn't come to its end"

step "The bus of the system starts the service for its first client"
mkdir -p /run/dbus
dbus-daemon --system --fork
qxsched status >/dev/null || fail "root isn't answered"
stay() {  # a client without whom the service would end: no service manager keeps it here
  qxsched monitor >/dev/null 2>&1 &
  within 20 pgrep -x QxSchedService || fail "the service doesn't stay for its client"
}
stay
useradd --no-create-home --groups qxsched member
useradd --no-create-home stranger
runuser -u member -- qxsched --bus system list >/dev/null || fail "a member of the group is refused"
if runuser -u stranger -- qxsched --bus system list >/dev/null 2>/log; then fail "a stranger is served"; fi
grep -q 'group qxsched' /log || { cat /log; fail "a stranger isn't told about the group"; }
id=$(qxsched add /source/examples/nightly.toml)
qxsched list --json | grep -qF "$id" || fail "the schedule isn't listed"

step "Upgrading"
quietly apt-get install -y --no-install-recommends /debs/2/*.deb
[[ $(dpkg-query -W -f '${Version}' qxsched-service) == *-2 ]] || fail "no upgrade"
qxsched list --json | grep -qF "$id" || fail "the upgrade lost the schedule"

step "An account of its own survives a removal, and so do the schedules"
pgrep -x QxSchedService >/dev/null || stay
qxsched config set account daemon >/dev/null 2>&1
[ -s $account_dropin ] || fail "the account has no drop-in"
quietly apt-get remove -y qxsched-service
within 20 gone || fail "the service still runs"
[ ! -e /usr/lib/systemd/system/QxSchedService.service ] || fail "the unit is still there"
[ ! -e /usr/bin/QxSchedService ] || fail "the program is still there"
[ -e $state/registry.db ] || fail "the removal took the state along"
[ -s $account_dropin ] || fail "the removal took the account along"
[ "$(qxsched reg list 'HKLM\SYSTEM\CurrentControlSet\Services' | grep -c QxSchedService)" = 0 ] || fail "still registered"
quietly apt-get install -y --no-install-recommends /debs/2/qxsched-service_*.deb
record_account | grep -q daemon || fail "the account became: $(record_account)"
qxsched list --json | grep -qF "$id" || fail "the schedule is gone"
[ -e /etc/systemd/system/multi-user.target.wants/QxSchedService.service ] || fail "the unit isn't enabled again"

step "A disabled unit stays disabled over an upgrade, and the account keeps its files"
pkill -TERM -x QxSchedService || true
within 20 gone || fail "the service doesn't stop"
chown -R daemon $state
rm -f /etc/systemd/system/multi-user.target.wants/QxSchedService.service
quietly apt-get install -y --no-install-recommends --reinstall /debs/2/qxsched-service_*.deb
[ ! -e /etc/systemd/system/multi-user.target.wants/QxSchedService.service ] || fail "the upgrade enabled the unit"
[ -z "$(find $state ! -user daemon)" ] || fail "not the account's any more: $(find $state ! -user daemon)"

step "Purging"
ln -s /lib/systemd/system/qxsched-record.service /etc/systemd/system/multi-user.target.wants/  # as systemctl enables it
mkdir -p /var/lib/qxsched-record
quietly apt-get purge -y qxsched qxsched-service qxsched-doc libqxsched-dev libqxschedclient0 libqxzepfoundation0 \
  libqxzepschedule2u
within 20 gone || fail "the service still runs"
[ ! -e $state ] || fail "the state is still there"
[ -z "$(names)" ] || fail "left behind: $(names)"
getent group qxsched >/dev/null || fail "the group is gone: files that belong to it would be somebody else's"
INSIDE
code=0
within_root "$root" /bin/bash /inside.sh || code=$?
keep_downloads "$root"
[ $code -eq 0 ] || exit $code
rm -rf "$root"
step "Everything happened as it should"
