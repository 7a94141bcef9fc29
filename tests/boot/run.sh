#!/usr/bin/env bash
# Installs, removes and purges the packages in a minimal Debian with piuparts, which finds what they leave behind. Then
# boots it with systemd as process 1, and installs and checks the packages there (inside.sh):
#
#   tests/boot/run.sh ARCHITECTURE FOLDER
#
# FOLDER has the packages of that architecture. The root lies in build/boot-ARCHITECTURE; it is made the first time, and
# when this script has changed, from the Debian archive that this machine's apt uses. Nothing is written to it afterwards.
# Only root may do this. Exit status: 0; 1 when a rule is broken; 77 when this machine cannot boot it, with the reason.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

architecture=$1 packages=$(realpath "$2")
release=bookworm
root=$PWD/build/boot-$architecture
log=$root.log
limit_s=600
# What the packages need is there already: the booted system has no network.
root_packages=(dbus mosquitto mosquitto-clients libglib2.0-bin glib-networking libjsoncpp25 procps)

skip() {
  echo "boot: skipped: $*" >&2
  exit 77
}

fail() {
  echo "boot: $*" >&2
  exit 1
}

# shellcheck source=tools/debian_root.sh
. tools/debian_root.sh

make_root() {
  local archive in_root=(env -u TMPDIR LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive chroot "$root")
  echo "boot: making build/boot-$architecture"
  rm -rf --one-file-system "$root"
  : >"$log"
  find_archive
  quietly debootstrap --arch="$architecture" --variant=minbase --include=systemd,systemd-sysv,ca-certificates \
    "$release" "$root" "$archive"
  share_network_with "$root"
  forbid_services_in "$root"
  quietly "${in_root[@]}" apt-get install -y --no-install-recommends "${root_packages[@]}"
  quietly "${in_root[@]}" apt-get clean
  rm "$root/usr/sbin/policy-rc.d"
  printf '%s\n' 'listener 1883 127.0.0.1' 'allow_anonymous true' >"$root/etc/mosquitto/conf.d/boot.conf"
  cat >"$root/etc/systemd/system/boot-check.service" <<'END'
[Unit]
Description=Check of the packages
Wants=mosquitto.service
After=dbus.service mosquitto.service

[Service]
ExecStart=/bin/bash -c '/check/inside.sh >/results/output 2>&1; echo $? >/results/status; systemctl poweroff'

[Install]
WantedBy=multi-user.target
END
  ln -s ../boot-check.service "$root/etc/systemd/system/multi-user.target.wants/"
  cp tests/boot/run.sh "$root/.made"
}

# With systemd in the root: it makes folders when it is installed, and leaves them. There is no earlier release to upgrade
# from.
check_purge() {
  local archive debs
  find_archive
  mapfile -t debs < <(find "$packages" -name '*.deb' ! -name '*-dbgsym_*' | sort)
  log=$PWD/build/piuparts-$architecture.log
  : >"$log"
  quietly piuparts --existing-chroot="$root" --distribution="$release" --mirror="$archive main" --arch="$architecture" \
    --no-upgrade-test "${debs[@]}"
  echo "piuparts: $(grep -o 'PASS: All tests' "$log")"
}

[ "$(id -u)" -eq 0 ] || skip "only root can boot a system in a container"
command -v systemd-nspawn >/dev/null || skip "systemd-nspawn is missing (package systemd-container)"
[ -c /dev/null ] || skip "/dev/null of this machine is no device"

mkdir -p build
exec {lock}>"$root.lock"
flock "$lock"
# A root that another version of this script has made may lack something.
cmp -s tests/boot/run.sh "$root/.made" || make_root
exec {lock}>&-
check_purge

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
personality=x86-64
[ "$architecture" = amd64 ] || personality=x86
container=(
  systemd-nspawn --quiet --directory="$root" --volatile=overlay --register=no --keep-unit --private-network
  --personality="$personality" --machine="boot-$$" --bind="$results:/results"
  --bind-ro="$packages:/packages" --bind-ro="$PWD/tests/boot:/check"
  --bind-ro="$PWD/docs/operations.md:/operations.md"
)
"${container[@]}" /bin/true </dev/null >"$results/console" 2>&1 ||
  skip "systemd-nspawn does not work here: $(tail -n 1 "$results/console")"

status=0
timeout "$limit_s" "${container[@]}" --boot </dev/null >"$results/console" 2>&1 || status=$?
if [ ! -e "$results/status" ]; then
  tail -n 40 "$results/console" >&2
  cat "$results/output" >&2 2>/dev/null || true
  fail "the system ended with $status before its check did"
fi
cat "$results/output"
[ "$(cat "$results/status")" = 0 ] || exit 1
