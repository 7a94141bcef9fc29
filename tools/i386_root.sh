#!/usr/bin/env bash
# Runs a command of the source tree in a Debian i386 root:
#
#   tools/i386_root.sh PACKAGE... -- COMMAND...
#
# The root lies in build/i386-root. It is made the first time, kept, and given the packages that it does
# not have yet, all from the Debian archive that this machine's apt uses. The source tree lies there where
# it lies outside. Only root may do this.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

release=bookworm
root=$PWD/build/i386-root
log=$root.log
# The list of the root's packages. It is missing while the root is made or extended, so that an interrupted
# root is made again from the start.
packages_file=$root/etc/i386-root-packages

fail() {
  echo "i386_root: $*" >&2
  exit 1
}

# shellcheck source=tools/debian_root.sh
. tools/debian_root.sh

# Starts a command in the root, without the variables that name programs and folders outside.
in_root=(
  env -u CC -u CXX -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER
  -u TMPDIR -u XDG_RUNTIME_DIR HOME=/root LC_ALL=C.UTF-8
  PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
  setarch i386 chroot "$root"
)

# It may have more: not every command needs the same.
has_packages() {
  local package there
  there=" $(cat "$packages_file" 2>/dev/null) " || return 1
  for package in "${packages[@]}"; do
    [[ $there == *" $package "* ]] || return 1
  done
}

make_root() {
  echo "i386_root: making build/i386-root"
  rm -rf --one-file-system "$root"
  quietly debootstrap --arch=i386 --variant=minbase --include=ca-certificates \
    "$release" "$root" "$archive"
  forbid_services_in "$root"
}

# This script has a mount namespace of its own: when its last process ends, however that may be, nothing
# is mounted any more, and nobody outside ever sees it.
mount_in_root() {
  mount --bind "$root" "$root"  # a program that makes namespaces needs a mount as its root
  mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
  mount -t tmpfs -o mode=755 tmpfs "$root/run"
  mount --rbind /dev "$root/dev"
  mount --rbind /proc "$root/proc"
  mkdir -p "$root$PWD"
  mount --bind "$PWD" "$root$PWD"
  share_network_with "$root"
}

install_packages() {
  echo "i386_root: installing ${packages[*]}"
  local there=()
  [ ! -e "$packages_file" ] || read -ra there <"$packages_file"
  rm -f "$packages_file"
  # Without updates between two point releases: what the release has is enough, and always there.
  echo "deb $archive $release main" >"$root/etc/apt/sources.list"
  quietly "${in_root[@]}" apt-get update
  quietly "${in_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${packages[@]}"
  quietly "${in_root[@]}" apt-get clean
  printf '%s\n' "${there[@]}" "${packages[@]}" | sort -u | xargs >"$packages_file"
}

if [ "${ADC_I386_ROOT_NAMESPACE:-}" != own ]; then
  [ "$(id -u)" -eq 0 ] || fail "only root can make and enter a root of another architecture"
  ADC_I386_ROOT_NAMESPACE=own exec unshare --mount --propagation private \
    "$PWD/tools/i386_root.sh" "$@"
fi
unset ADC_I386_ROOT_NAMESPACE

packages=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do
  packages+=("$1")
  shift
done
[ $# -ge 2 ] || fail "needs packages, -- and a command"
shift

mkdir -p build
exec {lock}>"$root.lock"
flock --nonblock "$lock" || {
  echo "i386_root: waiting for another one that makes the root"
  flock "$lock"
}
: >"$log"
if ! has_packages; then
  find_archive
  [ -e "$packages_file" ] || make_root
fi
mount_in_root
has_packages || install_packages
exec {lock}>&-

# shellcheck disable=SC2016 # the shell in the root fills these in
exec "${in_root[@]}" sh -c 'cd "$0" && exec "$@"' "$PWD" "$@"
