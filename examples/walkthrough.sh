#!/usr/bin/env bash
# Walks through the whole channel with ordinary clients: gdbus is the application on the television,
# mosquitto_pub, mosquitto_sub and mosquitto_rr are the cloud. Each step shows the command and its output. The
# walk ends with status 1 when the output is not what the channel promises.
#
# Run it with ./dev demo, or in the environment that ./dev run gives its command.
set -euo pipefail
export LC_ALL=C.UTF-8 # gdbus writes in the locale's character set

: "${DBUS_SYSTEM_BUS_ADDRESS:?run this with ./dev demo}"
: "${LUMO_BROKER:?run this with ./dev demo}" "${LUMO_THING_ID:?run this with ./dev demo}"

readonly limit=15 # seconds for anything to arrive; more than the time-out of a request
readonly name=org.tizen.qivo_thing
readonly path=/org/tizen/qivo_thing
readonly service=things/$LUMO_THING_ID/appdatachannel
address=${LUMO_BROKER#mqtt://}
readonly broker=(-V 5 -h "${address%:*}" -p "${address##*:}" -q 2)
steps=0
background=()
reply=

finish() {
  [ "${#background[@]}" -eq 0 ] || kill "${background[@]}" 2>/dev/null || true
}
trap finish EXIT

step() {
  steps=$((steps + 1))
  printf '\n%d. %s\n' "$steps" "$*"
}

fail() {
  printf 'walkthrough: step %d: %s\n' "$steps" "$*" >&2
  exit 1
}

# Prints a command as a shell takes it.
show() {
  local word
  printf '   $'
  for word in "$@"; do
    [[ $word =~ ^[[:alnum:]_./:=%,-]+$ ]] || word="'$word'"
    printf ' %s' "$word"
  done
  printf '\n'
}

# Shows and runs a command, and keeps its output in $reply.
run() {
  show "$@"
  reply=$("$@") || fail "the command ended with status $?"
  [ -z "$reply" ] || printf '   %s\n' "${reply//$'\n'/$'\n   '}"
}

# The reply must contain each of the strings.
expect() {
  local text
  for text in "$@"; do
    [[ $reply == *"$text"* ]] || fail "expected: $text"
  done
}

# Reads lines from the descriptor until one ends with the string.
await() {
  local descriptor=$1 text=$2 line
  while read -r -t "$limit" -u "$descriptor" line; do
    printf '   > %s\n' "$line"
    [[ $line != *"$text" ]] || return 0
  done
  fail "did not come within $limit s: $text"
}

# The application calls a method; $1 is the expected reply.
call() {
  run gdbus call --system -d "$name" -o "$path" -m "$name.service.$2" "${@:3}"
  [[ $reply == "$1" ]] || fail "expected: $1"
}

# The next signal that the application receives contains the string.
event() {
  local line
  read -r -t "$limit" -u "$events" line || fail "did not come within $limit s: $1"
  printf '   > %s\n' "$line"
  [[ $line == *"$name.service.$1" ]] || fail "expected: $1"
}

# The cloud sends a get or a set, and waits for the answer.
request() {
  run mosquitto_rr "${broker[@]}" -W "$limit" -t "$service/$1" -e walkthrough/answer -m "$2"
}

# The cloud sees the string at the topic, now or soon.
published() {
  local topic=$service/$1 text=$2 line lines subscriber
  show mosquitto_sub "${broker[@]}" -t "$topic"
  exec {lines}< <(exec mosquitto_sub "${broker[@]}" -t "$topic" -W "$limit")
  subscriber=$!
  while read -r -u "$lines" line; do
    printf '   %s\n' "$line"
    if [[ $line == *"$text"* ]]; then
      exec {lines}<&-
      kill "$subscriber" 2>/dev/null || true  # before it complains of the time
      return
    fi
  done
  fail "did not come within $limit s: $text"
}

echo "The application's side is $DBUS_SYSTEM_BUS_ADDRESS,"
echo "the cloud's side $LUMO_BROKER, where the television is things/$LUMO_THING_ID."

step "The application listens to the channel's signals."
show gdbus monitor --system -d "$name" -o "$path"
exec {events}< <(exec gdbus monitor --system -d "$name" -o "$path")
background+=("$!")
while read -r -t "$limit" -u "$events" line; do
  printf '   > %s\n' "$line"
  [[ $line != *' is owned by '* ]] || break
done
[[ $line == *' is owned by '* ]] || fail "$name is not on the bus"

step "It registers, and becomes a property in the cloud."
call '(0,)' register_app qz
published properties '"qz"'

step "A name off the list is refused."
call '(-20,)' register_app nobody

step "The cloud signs the television in; applications are told, and may ask."
request set '{"signinStatus": true}'
expect '"result":0'
event 'cloud_connection_changed (true,)'
call '(true,)' get_cloud_connection

step "The application sends data up; the cloud sees it."
call '(0,)' send_data qz 'volume 7'
published value/qz '"volume 7"'

step "The cloud sets data; the answer carries what the application sent before, and the application gets an event."
request set '{"qz": "volume 9"}'
expect '"result":0' '"qz":"volume 7"'
event "send_event ('qz', 'volume 9')"

step "The application confirms by sending it back; the cloud sees that, and reads it whenever it asks."
call '(0,)' send_data qz 'volume 9'
published value/qz '"volume 9"'
request get '["qz"]'
expect '"result":0' '"qz":"volume 9"'

step "A set of an unknown property gets the result 6."
request set '{"nobody": "volume 9"}'
expect '"result":6'

step "An application takes strings. The plug-in does not answer a set that cannot become one: it times out."
request set '{"qz": {"volume": 9}}'
expect '"error":'

step "The cloud need not wait: it cancels the first of two such sets, and gets an answer to the second only."
session=(-i "walkthrough-$$" -c -x 60 -t walkthrough/ends)
unanswered=(-t "$service/set" -m '{"qz": {}}' -D publish response-topic walkthrough/ends)
run mosquitto_sub "${broker[@]}" "${session[@]}" -E
run mosquitto_pub "${broker[@]}" "${unanswered[@]}" -D publish correlation-data first
run mosquitto_pub "${broker[@]}" -t "$service/cancel" -n -D publish correlation-data first
run mosquitto_pub "${broker[@]}" "${unanswered[@]}" -D publish correlation-data second
run mosquitto_sub "${broker[@]}" "${session[@]}" -W "$limit" -C 1 -F '%D %p'
[[ $reply == 'second '*'"error":'* ]] || fail 'expected: second … "error"'

step "The application unregisters; its value is gone from the broker, and its data from the television."
show mosquitto_sub "${broker[@]}" -t "$service/value/qz" -F 'value [%p]'
exec {values}< <(exec mosquitto_sub "${broker[@]}" -t "$service/value/qz" -F 'value [%p]')
background+=("$!")
await "$values" 'value ["volume 9"]'
call '(0,)' unregister_app qz
await "$values" 'value []'
call '(-20,)' send_data qz 'volume 7'

printf '\nAll %d steps went as the channel promises.\n' "$steps"
