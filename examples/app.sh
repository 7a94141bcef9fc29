#!/usr/bin/env bash
# An application in shell: registers, prints what the cloud sends it, and confirms it by sending it back.
#
#     app.sh NAME
#
# NAME is one of the names on the channel's list, "qz" for example. SIGINT or SIGTERM unregisters and ends it.
set -euo pipefail
export LC_ALL=C.UTF-8 # gdbus writes in the locale's character set

if [ $# -ne 1 ]; then
  echo "usage: app.sh NAME" >&2
  exit 2
fi
readonly app=$1
readonly bus_name=org.tizen.qivo_thing
readonly path=/org/tizen/qivo_thing
readonly interface=$bus_name.service

fail() {
  echo "app: $*" >&2
  exit 1
}

# Prints the result; nothing when the call failed, after a line about it.
call() {
  gdbus call --system -d "$bus_name" -o "$path" -m "$interface.$1" "${@:2}" || true
}

# The monitor prints who owns the name, now and after every restart of the channel, and each signal as
# PATH: INTERFACE.SIGNAL (PARAMETERS)
exec {monitor}< <(exec gdbus monitor --system -d "$bus_name" -o "$path")
readonly monitor_pid=$!
registered=no

# shellcheck disable=SC2317 # the trap calls it
finish() {
  [ "$registered" = no ] || call unregister_app "$app" >/dev/null
  kill "$monitor_pid" 2>/dev/null || true
}
trap finish EXIT
trap 'exit 0' INT TERM

while read -r -u "$monitor" line; do
  case "$line" in
    # Registrations end with the channel's process, the owner of the name: register with each new owner.
    *" is owned by "*)
      # Registrations are counted, and outlive an application that crashes. While some are left, the cloud does not
      # get the property. So take away all that are left of earlier runs, and then register once.
      reply='(0,)'
      while [ "$reply" = '(0,)' ]; do reply=$(call unregister_app "$app"); done
      [ "$reply" != '(-20,)' ] || reply=$(call register_app "$app")
      case "$reply" in
        '(0,)')
          registered=yes
          echo "registered"
          ;;
        '') ;; # the channel has just gone: it appears again
        *) fail "cannot register '$app': $reply" ;;
      esac
      ;;
    *" does not have an owner")
      registered=no
      ;;
    # Every listener gets every event: check the name. The data is a quoted string, as gdbus takes it.
    "$path: $interface.send_event ('$app', "*)
      data=${line#*", "}
      data=${data%)}
      echo "event: $data"
      call send_data "$app" "$data" >/dev/null
      ;;
  esac
done
fail "the message bus is gone"
