#!/bin/sh
# shellcheck shell=dash
# OpenVPN client tunnels: a daemon for each profile.
#
#   vpn_openvpn_client.sh start|stop|keep|forget INDEX
#   vpn_openvpn_client.sh redial INDEX     the daemon has ended by itself: start, if the profile says so
#
# The program has written the profile, /etc/config/openvpn/clients/clientINDEX, from one that came
# from elsewhere. The daemon never reads it: fenro-openvpn-profile makes a copy at each start, in
# a folder that only the daemon sees and that goes with it. The daemon runs under the name
# "openvpnclient" with the profile's path among its arguments, as a variable for its hooks:
# tunnels are found in /proc by both. It begins with the rights that vpn_ext.so leaves it.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh

DAEMON=/usr/lib/fenro/openvpnclient # a link to openvpn, for its name
ATTENDANT=fenro-openvpn-login
START_SECONDS=10
KEPT=-all,+net_admin,+net_raw,+net_bind_service,+kill,+chown,+fowner
TOLD=/var/lib/fenro/openvpn-told # what has been left out, by profile

# The first "pull-filter" counts, of most others the last.
daemon_arguments() {
  local ciphers
  set -- --pull-filter ignore redirect-gateway --setenv FENRO_PROFILE "$profile" --config \
    "$place/profile" \
    --mark "$TUNNEL_MARK"
  ciphers=$(ovpn_known_ciphers "$profile")
  set -- "$@" --data-ciphers "${ciphers:-DEFAULT}"
  # Written in capital letters by the program, and known to the daemon in small ones only.
  case $(ovpn_value cipher "$profile") in [Nn][Oo][Nn][Ee]) set -- "$@" --cipher none ;; esac
  case $(ovpn_value tls-cipher "$profile") in [Nn][Oo][Nn][Ee]) set -- "$@" \
    --tls-cipher DEFAULT ;; esac
  if is_true "$(vpn_get "$section" Reconnect 1)"; then set -- "$@" --connect-retry-max 0; fi
  printf '%s\n' "$@"
}

# The copy comes by standard input. A daemon in its own session holds none of our streams.
# shellcheck disable=SC2016 # for the other shell
BEGIN='umask 077; cat >"$1" && shift && exec setsid "$0" "$@" </dev/null >/dev/null 2>&1'

# It stays in the foreground until it has its login, so it is left alone, and waited for by its pid
# file.
launch() {
  local IFS='
' daemon
  # shellcheck disable=SC2046 # one argument a line; none of them holds a line break
  ovpn_jail "$place" "$AS_LOOKUP" setpriv --no-new-privs --inh-caps=-all --bounding-set="$KEPT" \
    -- /bin/sh -c "$BEGIN" "$DAEMON" \
    "$place/profile" $(daemon_arguments) <"$copy" >/dev/null 9>&- &
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

# Why the daemon refuses the profile; it says so only in the host's log, which does not show whose
# line it is.
judged() {
  /usr/sbin/verify_ovpn.sh "$profile" 2>&1 </dev/null 9>&- |
    sed -n 's/^verify_ovpn.sh: refused: //p' | head -n 1
}

# The falling edge belongs to the daemon's own hook; it is repeated here for a daemon that was
# killed.
stop() {
  end_processes "$ATTENDANT" "client$slot" || die "[$section] $ATTENDANT does not end"
  end_processes "${DAEMON##*/}" "$profile" || die "[$section] the tunnel does not end"
  rm -f "$pid_file" "$socket" "$place.sock" "$place/profile"
  ! client_known "$section" || ovpn_client_down "$section"
}

# make_copy: the profile that the daemon reads. What it lacks is reported once for each content of
# the profile.
make_copy() {
  local left
  left=$(ovpn_profile copy "$slot" <"$profile" 2>&1 >"$copy") || {
    rm -f "$copy"
    fail profile-not-allowed "[$section] the profile cannot run: $(printf '%s\n' "$left" | tail -n 1)"
  }
  [ -z "$left" ] ||
    tell "$(printf '%s\n' "$left" | head -n 20 | tr '\n' ',' | sed 's/,$//; s/,/, /g')"
}

tell() {
  local sum
  sum=$(sha256sum <"$profile")
  note "[$section] left out of the profile: $1"
  [ "$(cat "$TOLD/client$slot" 2>/dev/null)" != "$sum" ] || return 0
  /usr/local/sbin/notify send -A A238 -C C002 -M 9001 -l warn -t 1000 \
    '[{0}] Lines of OpenVPN profile "{1}" were left out: {2}' 'ORMEL Service' \
      "$(vpn_get "$section" 'Profile File')" "$1" \
    >/dev/null 2>&1 || say "[$section] left out of the profile, and no event can tell: $1"
  mkdir -p "$TOLD" && write_file "$TOLD/client$slot" printf '%s\n' "$sum"
}

start() {
  stop
  client_known "$section" && [ -r "$profile" ] || die "[$section] no such profile"
  make_copy
  ovpn_device ||
    fail kernel-lacks "[$section] this kernel has no TUN device, the tunnel cannot start"
  launched=TRUE
  launch || launched=
  rm -f "$copy"
  [ -z "$launched" ] || return 0
  last=$(judged)
  [ -z "$last" ] || stop
  case $last in
    # A daemon that takes its profile has met its server already. The attendant has heard how, and
    # dials again or not.
    '') note "[$section] the daemon has ended at once" ;;
    *'Unrecognized option'*) fail profile-unknown-option "[$section] $last" ;;
    *) fail settings-bad "[$section] $last" ;;
  esac
}

running() { [ -n "$(pids_of "${DAEMON##*/}" "$profile")" ]; }

redial() {
  running || ! is_true "$(vpn_get "$section" Reconnect 1)" || start
}

start_action=start down_action=ovpn_client_down
client_script OPENVPN_CLIENT 'start stop redial keep forget' "$@"
profile=$OVPN_CLIENTS/client$slot
place=$RUN_DIR/openvpn-client$slot
copy=$place.copy
pid_file=/var/run/openvpn.client$slot.pid
socket=/tmp/openvpn.client$slot.sock # of the attendant; the daemon has $place.sock
with_lock "openvpnclient$slot" client_action "$1"
