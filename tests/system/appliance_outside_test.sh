#!/usr/bin/env bash
# appliance_outside_test.sh APPLIANCE STAGE: the private appliance seen from outside. It passes on
# what its command reads, writes and ends with, leaves this machine as it was, and takes everything
# along however it is ended.
set -uo pipefail
APPLIANCE=("$1" --stage "$2" --no-daemons --)
failures=0

expect() {
  [[ $2 == "$3" ]] && return
  printf 'FAILED: %s\n  expected: %s\n  found:    %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

machine() {
  uname -n
  cat /proc/sys/net/ipv4/ip_default_ttl /proc/self/mountinfo
  ip -brief address
  ls -A /
  ls -lA --time-style=full-iso /etc /mnt /usr /usr/sbin /var/log
}

# Waits for a process to go, for two seconds at most.
gone() {
  local round
  for ((round = 0; round < 100; round++)); do
    pgrep -f "$1" >/dev/null || return 0
    sleep 0.02
  done
  return 1
}

before=$(machine)
# shellcheck disable=SC2016 # it runs inside
"${APPLIANCE[@]}" bash -c '
  hostname changed; echo 7 >/proc/sys/net/ipv4/ip_default_ttl; ip link delete eth0
  ip address add 192.0.2.9/32 dev lo
  touch /etc/passwd /etc/new /usr/new /usr/sbin/new /mnt/new /var/log/new
  rm /usr/sbin/nginx; mount -t tmpfs x /opt'
expect 'what is done inside succeeds' 0 $?
expect 'and leaves the machine as it was' '' "$(diff <(echo "$before") <(machine))"

mark=31${$}.5 # a time to sleep that no other process on this machine has
# shellcheck disable=SC2016
output=$(echo 'one two' |
  SECRET=x "${APPLIANCE[@]}" bash -c 'cat; env -u PWD -u SHLVL -u _ | cut -d= -f1 | sort | xargs
  setsid sleep "$0" >/dev/null & exit 42' "$mark")
expect 'the exit status is the command'\''s' 42 $?
expect 'so are input and output, and nothing but PATH, HOME and LANG is in the environment' \
  $'one two\nHOME LANG PATH' "$output"
expect 'what the command left behind has ended with it' 0 "$(gone "sleep $mark" && echo 0)"
"${APPLIANCE[@]}" bash -c 'kill -KILL $$'
expect 'a signal that ended the command shows as a shell shows it' 137 $?

for signal in TERM KILL; do
  "${APPLIANCE[@]}" bash -c "setsid sleep $mark & sleep $mark" &
  until pgrep -f "^sleep $mark" >/dev/null; do
    kill -0 $! || break
    sleep 0.02
  done
  kill -s $signal $!
  { wait $!; status=$?; } 2>/dev/null
  expect "status of an appliance that got SIG$signal" $((128 + $(kill -l $signal))) "$status"
  expect "and nothing survives SIG$signal" 0 "$(gone "sleep $mark" && echo 0)"
done

exit $((failures > 0))
