#!/bin/sh
# shellcheck shell=dash
# OpenVPN client tunnels: a daemon for each profile.
#
#   vpn_openvpn_client.sh start|stop INDEX
#   vpn_openvpn_client.sh redial INDEX     when the daemon has ended by itself: start, if the profile says so
#
# The daemon reads /etc/config/openvpn/clients/clientINDEX, which the program has written. It runs under the name
# "openvpnclient" with that path among its arguments: whoever looks for tunnels in /proc goes by both.
#
# The profile was made from one that came from elsewhere. What of it decides how the daemon runs on this host has been
# replaced; some that could be abused has been kept. ovpn_risk keeps those from running that could do harm, and what
# stands before and behind "--config" takes away the rest: the first "log" counts, of all others the last.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh

DAEMON=/usr/lib/fenro/openvpnclient # a link to openvpn, for its name
ATTENDANT=fenro-openvpn-login
START_SECONDS=10

# The profile's own lines about these would be run, or written to.
daemon_arguments() {
  local ciphers
  set -- --log /dev/null --pull-filter ignore redirect-gateway --config "$profile" --cd "$OVPN_CLIENTS" \
    --status /dev/null 0 --route-up /bin/true --route-pre-down /bin/true --ipchange /bin/true --tls-verify /bin/true
  ciphers=$(ovpn_known_ciphers "$profile")
  set -- "$@" --data-ciphers "${ciphers:-DEFAULT}"
  # Written in capital letters by the program, and known to the daemon in small ones only.
  case $(ovpn_value cipher "$profile") in [Nn][Oo][Nn][Ee]) set -- "$@" --cipher none ;; esac
  case $(ovpn_value tls-cipher "$profile") in [Nn][Oo][Nn][Ee]) set -- "$@" --tls-cipher DEFAULT ;; esac
  if is_true "$(vpn_get "$section" Reconnect 1)"; then set -- "$@" --connect-retry-max 0; fi
  printf '%s\n' "$@"
}

# It stays in the foreground until it has its login, so it is left alone, and waited for by its pid file.
launch() {
  local IFS='
' daemon
  # shellcheck disable=SC2046 # one argument a line; none of them holds a line break
  setsid "$DAEMON" $(daemon_arguments) </dev/null >/dev/null 2>&1 9>&- &
  daemon=$!
  setsid -f "/usr/lib/fenro/$ATTENDANT" "client$slot" </dev/null >/dev/null 2>&1 9>&-
  await "$daemon"
}

# Whether the daemon lives on: in the background, or still asking for its login.
await() {
  local rounds=$((START_SECONDS * 5))
  while [ "$rounds" -gt 0 ]; do
    [ ! -s "$pid_file" ] || return 0
    kill -0 "$1" 2>/dev/null || break
    sleep 0.2
    rounds=$((rounds - 1))
  done
  [ -n "$(pids_of "${DAEMON##*/}" "$profile")" ]
}

# The falling edge belongs to the daemon's own hook; it is repeated here for a daemon that was killed.
stop() {
  end_processes "$ATTENDANT" "client$slot" || die "[$section] $ATTENDANT does not end"
  end_processes "${DAEMON##*/}" "$profile" || die "[$section] the tunnel does not end"
  rm -f "$pid_file" "$socket"
  ! client_known "$section" || ovpn_client_down "$section"
}

start() {
  local risk
  stop
  client_known "$section" && [ -r "$profile" ] || die "[$section] no such profile"
  risk=$(ovpn_risk "$profile") || die "[$section] the profile can't be read"
  [ -z "$risk" ] || die "[$section] the profile must not run on this appliance, for its line: $risk"
  ovpn_device || die "[$section] this kernel has no TUN device, the tunnel cannot start"
  launch || {
    stop
    die "[$section] the daemon ended at once: a profile that it can't run, or a login that can't be had"
  }
}

redial() {
  ! is_true "$(vpn_get "$section" Reconnect 1)" || start
}

client_script OPENVPN_CLIENT 'start stop redial' "$@"
profile=$OVPN_CLIENTS/client$slot
pid_file=/var/run/openvpn.client$slot.pid
socket=/tmp/openvpn.client$slot.sock
with_lock "openvpnclient$slot" "$1"
