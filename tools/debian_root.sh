#!/usr/bin/env bash
# For scripts that make a Debian root, to be sourced. The script sets `release`, `log` and a function `fail`.
# shellcheck disable=SC2154 # it sets them

# The command's output goes to the log, and is shown when it fails.
quietly() {
  "$@" >>"$log" 2>&1 </dev/null && return
  tail -n 30 "$log" >&2
  fail "'$*' failed"
}

# Where this machine's apt gets the release from; nothing when it does not.
archive_of_apt() {
  # shellcheck disable=SC2016 # apt fills these in
  apt-get indextargets --format '$(CODENAME) $(REPO_URI)' \
    'Created-By: Packages' 'Origin: Debian' 'Component: main' |
    awk -v release="$release" '$1 == release && !found++ { print $2 }'
}

# Sets `archive`.
find_archive() {
  archive=$(archive_of_apt)
  [ -z "$archive" ] || return 0
  quietly apt-get update  # its lists may be empty
  archive=$(archive_of_apt)
  [ -n "$archive" ] || fail "apt has no source of Debian $release"
}

# Gives the root what apt needs in it: names, proxies and the like.
share_network_with() {
  local file
  for file in /etc/hosts /etc/resolv.conf; do
    [ ! -e "$file" ] || cp -L "$file" "$1$file"
  done
  apt-config dump | grep '^Acquire::' | grep -v '^Acquire::IndexTargets' >"$1/etc/apt/apt.conf.d/99outside" || true
}

# From then on Debian's packages do not start their services when they are installed in the root.
forbid_services_in() {
  printf '#!/bin/sh\nexit 101\n' >"$1/usr/sbin/policy-rc.d"
  chmod +x "$1/usr/sbin/policy-rc.d"
}
