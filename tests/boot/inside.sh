#!/bin/bash
# Runs as root in the booted system: installs the packages from /packages and checks what they promise. Prints a line
# for each rule that is kept; at the first that is not, the journal, and ends with 1.
set -uo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive

topics=things/tv/appdatachannel
settings=/etc/qivo-thing/environment

fail() {
  echo "not ok: $rule: $*"
  systemctl --no-pager --full status qivo-thing
  journalctl --no-pager -n 60 -u qivo-thing -u dbus -u mosquitto
  exit 1
}

# Begins the next rule; the one before was kept.
rule=
keeps() {
  [ -z "$rule" ] || echo "ok: $rule"
  rule=$1
}

# Runs the command until it succeeds, for at most 30 seconds.
within_limit() {
  local end=$((SECONDS + 30))
  until "$@" >/tmp/last-output 2>&1; do
    [ "$SECONDS" -lt "$end" ] || fail "'$*' did not succeed in 30 s; it printed: $(cat /tmp/last-output)"
    sleep 0.1
  done
}

call() {
  local user=$1 method=$2
  shift 2
  runuser -u "$user" -- gdbus call --system -d org.tizen.qivo_thing -o /org/tizen/qivo_thing \
    -m "org.tizen.qivo_thing.service.$method" "$@" 2>&1
}

status() { VCONF_DIR=/run/qivo-thing/vconf vconf get memory/iot/thing/thing_status; }
channel_is_up() { [ "$(status)" = 1 ]; }
main_pid() { systemctl show --property=MainPID --value qivo-thing; }
is_new_after() { [ "$(main_pid)" != "$1" ] && [ "$(main_pid)" != 0 ]; }
runs_again_after() { is_new_after "$1" && channel_is_up; }
journal_names() { journalctl -u qivo-thing | grep "$1" >/dev/null; }
has_ended_with() { [ "$(systemctl show --property=ExecMainStatus --value qivo-thing)" = "$1" ]; }
state_has() { systemctl show --property=StatusText --value qivo-thing | grep -E "$1" >/dev/null; }
health_has() { mosquitto_sub -t things/tv/health -C 1 -W 2 | grep -F "$1" >/dev/null; }
thing_is_online() { [ "$(mosquitto_sub -t things/tv/status -C 1 -W 2)" = '"online"' ]; }
gets() { [ "$(mosquitto_rr -V 5 -W 5 -t $topics/get -e answers/1 -m '["qz"]')" = "$1" ]; }
sends() { [ "$(call app send_data qz "$1")" = "(0,)" ]; }
registers() { [ "$(call app register_app qz)" = "(0,)" ]; }

# Every name that a package may leave behind.
list_files() {
  find /etc /usr /lib /opt /srv /var /run/qivo-thing \
    \( -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log -o -path /var/tmp \
    -o -path /var/lib/systemd -o -path /var/lib/mosquitto \) -prune -o -print 2>/dev/null | sort
}

# The same files as packages of a later version, in `next`.
make_next_version() {
  local deb folder=/tmp/next
  next=()
  for deb in "${debs[@]}"; do
    rm -rf $folder
    dpkg-deb -R "$deb" $folder || fail "cannot unpack $deb"
    sed -i -e 's/^Version: .*/&+next/' -e 's/(= \([^)]*\))/(= \1+next)/g' $folder/DEBIAN/control
    next+=("/tmp/next-${deb##*/}")
    dpkg-deb -b $folder "${next[-1]}" >/dev/null || fail "cannot pack $deb"
  done
}

mapfile -t debs < <(find /packages -name '*.deb' ! -name '*-dbgsym_*')
names=()
for deb in "${debs[@]}"; do names+=("$(dpkg-deb -f "$deb" Package)"); done

version=$(dpkg-deb -f "${debs[0]}" Version)

useradd app
useradd other
list_files >/tmp/files-before

keeps "the packages install with apt"
mkdir /etc/qivo-thing
printf '%s\n' LUMO_BROKER=mqtt://127.0.0.1 LUMO_THING_ID=tv >$settings
apt-get install -y -qq --no-install-recommends "${debs[@]}" >/tmp/apt-output 2>&1 || fail "$(cat /tmp/apt-output)"

keeps "after the installation the service is enabled and the channel comes up"
[ "$(systemctl is-enabled qivo-thing)" = enabled ] || fail "it is not enabled"
within_limit channel_is_up
within_limit thing_is_online

keeps "the unit is active only when the channel is up"
for _ in 1 2 3; do
  systemctl stop qivo-thing || fail "no stop"
  systemctl start qivo-thing || fail "no start"
  channel_is_up || fail "it is active, and the channel is not up"
done

keeps "an ordinary user walks through the channel"
within_limit thing_is_online
registers || fail "no registration"
sends 'volume 7' || fail "no data sent"
within_limit gets '{"result":0,"properties":{"qz":"volume 7"}}'
runuser -u app -- gdbus monitor --system -d org.tizen.qivo_thing >/tmp/signals 2>/dev/null &
monitor=$!
within_limit grep -q 'is owned by' /tmp/signals
answer=$(mosquitto_rr -V 5 -q 2 -W 20 -t $topics/set -e answers/1 -m '{"qz":"hello"}')
case $answer in '{"result":0'*) ;; *) fail "the answer to a set is '$answer'" ;; esac
within_limit grep -q 'send_event.*hello' /tmp/signals
kill $monitor

keeps "systemctl shows how the thing is, and the broker has its health"
within_limit state_has '^online at mqtt://127\.0\.0\.1.* as tv, 1 application, 0 requests waiting$'
within_limit health_has '"connections":1'

keeps "another user cannot own the name"
answer=$(runuser -u other -- gdbus call --system -d org.freedesktop.DBus -o /org/freedesktop/DBus \
  -m org.freedesktop.DBus.RequestName org.tizen.qivo_thing 0 2>&1)
case $answer in *AccessDenied*) ;; *) fail "the bus said $answer" ;; esac

keeps "the process survives a restart of the bus"
before=$(main_pid)
systemctl restart dbus || fail "no restart"
within_limit registers
within_limit sends 'volume 8'
[ "$(main_pid)" = "$before" ] || fail "another process: $before, then $(main_pid)"

keeps "kill -9 ends in a new process and the channel up"
kill -9 "$before"
within_limit runs_again_after "$before"
within_limit registers

keeps "a process that hangs is ended, and a new one started, within a minute"
before=$(main_pid)
kill -STOP "$before"
hangs_since=$SECONDS
until is_new_after "$before"; do
  [ $((SECONDS - hangs_since)) -lt 60 ] || fail "there is no new process after a minute"
  sleep 0.5
done
within_limit runs_again_after "$before"
within_limit registers

keeps "a restart of the broker ends in a thing that is online and answers"
systemctl restart mosquitto || fail "no restart"
within_limit thing_is_online
within_limit sends 'volume 9'
within_limit gets '{"result":0,"properties":{"qz":"volume 9"}}'

# systemd's own limit is five starts in ten seconds, which the unit's two seconds between them would never reach.
keeps "ten crashes in ten seconds are not too many"
mkdir -p /run/systemd/system/qivo-thing.service.d
printf '%s\n' '[Service]' RestartSec=100ms >/run/systemd/system/qivo-thing.service.d/crashes.conf
systemctl daemon-reload || fail "no reload"
first=$(date +%s%N)
for _ in $(seq 10); do
  before=$(main_pid)
  kill -9 "$before"
  within_limit is_new_after "$before"
done
[ $(($(date +%s%N) - first)) -lt 10000000000 ] || fail "the crashes took longer than ten seconds"
rm -r /run/systemd/system/qivo-thing.service.d
systemctl daemon-reload || fail "no reload"
within_limit channel_is_up
within_limit thing_is_online

keeps "with a wrong setting the unit is not active, and the journal names the setting"
cp $settings /tmp/settings
sed -i 's/^LUMO_BROKER=.*/LUMO_BROKER=localhost/' $settings
systemctl restart qivo-thing
[ "$(systemctl is-active qivo-thing)" != active ] || fail "it is active"
within_limit journal_names "LUMO_BROKER: 'localhost' is not"
within_limit has_ended_with 1
cp /tmp/settings $settings
within_limit channel_is_up

keeps "an error has the journal's priority of errors and no time of its own, and a healthy service is quiet"
# From the host itself, and from its log since the bus was away.
for line in "qivo-thing: LUMO_BROKER: 'localhost' is not" 'E QIVO_THING: .*the bus connection has closed'; do
  journalctl -u qivo-thing -p 3 -o cat | grep "^$line" >/dev/null || fail "no '$line' of priority 3"
done
# From its log when the broker was back.
journalctl -u qivo-thing -p 4..4 -o cat | grep '^W LUMO: connected to ' >/dev/null || fail "no warning of priority 4"
before=$(journalctl -u qivo-thing -o cat _COMM=qivo-thing | wc -l)
within_limit registers
within_limit sends 'volume 9'
within_limit gets '{"result":0,"properties":{"qz":"volume 9"}}'
[ "$(journalctl -u qivo-thing -o cat _COMM=qivo-thing | wc -l)" = "$before" ] ||
  fail "it writes: $(journalctl -u qivo-thing -o cat _COMM=qivo-thing | tail -n +$((before + 1)))"

keeps "an upgrade while an application talks ends in a new process, and the application goes on"
before=$(main_pid)
make_next_version
while sleep 0.2; do
  registers && sends "after $(dpkg-query -W -f '${Version}' qivo-thing)"
done &
application=$!
within_limit gets '{"result":0,"properties":{"qz":"after '"$version"'"}}'
apt-get install -y -qq "${next[@]}" >/tmp/apt-output 2>&1 || fail "$(cat /tmp/apt-output)"
within_limit runs_again_after "$before"
within_limit gets '{"result":0,"properties":{"qz":"after '"$version"'+next"}}'
kill $application

keeps "after the removal nothing runs, and the settings stay"
apt-get remove -y -qq "${names[@]}" >/tmp/apt-output 2>&1 || fail "$(cat /tmp/apt-output)"
[ "$(systemctl is-active qivo-thing)" = inactive ] || fail "the unit is $(systemctl is-active qivo-thing)"
[ -z "$(ps -u qivo-thing -o pid=)" ] || fail "a process is left"
[ -e $settings ] || fail "no settings"

keeps "after the purge nothing is left but the user"
mapfile -t names < <(dpkg-query -W -f '${Package}\n' "${names[@]}" 2>/dev/null)  # the others are gone already
apt-get purge -y -qq "${names[@]}" >/tmp/apt-output 2>&1 || fail "$(cat /tmp/apt-output)"
list_files >/tmp/files-after
diff /tmp/files-before /tmp/files-after >/tmp/left || fail "$(cat /tmp/left)"

# One machine stands for all of them. The page's blocks in order: the authority, the broker, the television, a program, the
# renewed certificate. The broker's name is localhost: without an address but loopback's, glibc knows no other name.
keeps "the commands of the page for operators end in a television that is online with TLS"
systemctl stop mosquitto
rm -r /etc/mosquitto/conf.d/boot.conf /etc/qivo-thing /var/lib/mosquitto/mosquitto.db
mkdir /tmp/operator
cd /tmp/operator || fail "no folder"
cp /packages/*.deb .
awk '/^## / { here = /^## (On real machines|Renew)$/ } /^```/ { inside = here && /^```sh$/; number += inside; next }
  inside { gsub(/broker\.example/, "localhost"); print >"block-" number }' /operations.md
[ "$(echo block-*)" = "block-1 block-2 block-3 block-4 block-5" ] || fail "the page has other blocks: $(echo block-*)"
for number in 1 2 3; do
  bash -e "block-$number" >output 2>&1 </dev/null || fail "block $number: $(cat output)"
  [ "$number" != 1 ] || cp fleet/broker/ca.pem fleet/issued/tv-0042.pem .
done
within_limit state_has '^online at mqtts://localhost:8883 as tv-0042, '
within_limit bash -e block-4
grep -qx 'things/tv-0042/status "online"' /tmp/last-output || fail "a program sees $(cat /tmp/last-output)"
/usr/share/appdatachannel/broker/enrol --folder fleet renew tv-0042 || fail "no renewal"
cp fleet/issued/tv-0042.pem .
bash -e block-5 || fail "the renewed certificate is not installed"
cmp tv-0042.pem /etc/qivo-thing/tv.pem || fail "the certificate is the old one"
systemctl stop mosquitto
within_limit state_has '^offline since '
systemctl start mosquitto
within_limit state_has '^online at mqtts://localhost:8883 as tv-0042, '
for file in /etc/mosquitto/appdatachannel/{broker.pem,passwords,access} /etc/qivo-thing/tv.pem fleet/authority/ca.key; do
  [ -e "$file" ] || fail "there is no $file"
  if runuser -u other -- cat "$file" >/dev/null 2>&1; then fail "everybody reads $file"; fi
done

keeps ""
echo "all rules are kept"
