#!/usr/bin/env bash
# Installs, removes and purges the packages in a minimal Debian with piuparts, which finds what they leave behind:
#
#   tests/boot/piuparts.sh ARCHITECTURE FOLDER
#
# There is no earlier release to upgrade from. Only root may do this. Prints what piuparts prints when it finds something.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

architecture=$1 packages=$(realpath "$2")
release=bookworm
log=$PWD/build/piuparts-$architecture.log

fail() {
  echo "piuparts: $*" >&2
  exit 1
}

# shellcheck source=tools/debian_root.sh
. tools/debian_root.sh

mkdir -p build
: >"$log"
find_archive
# The root without the packages is kept.
base=$PWD/build/piuparts-$architecture.tgz
if [ -e "$base" ]; then root=(--basetgz="$base"); else root=(--save="$base"); fi
mapfile -t debs < <(find "$packages" -name '*.deb' ! -name '*-dbgsym_*' | sort)
quietly piuparts --distribution="$release" --mirror="$archive main" --arch="$architecture" --no-upgrade-test \
  "${root[@]}" "${debs[@]}"
echo "piuparts: $(grep -o 'PASS: All tests' "$log")"
