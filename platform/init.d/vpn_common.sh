#!/bin/sh
# shellcheck shell=dash
# Work that all protocols share: routing and NAT of client interfaces, throwing out a server's
# sessions.
#
#   vpn_common.sh setup_vpn_entrance                   once at the start of the system; makes vpn.conf if missing
#   vpn_common.sh add_vpnclient_profile INTERFACE      the interface need not exist yet
#   vpn_common.sh remove_vpnclient_profile INTERFACE
#   vpn_common.sh kick_all_connection TYPE [USER]      all sessions of a server, or all of one user
#   vpn_common.sh kick_one_connection TYPE WHO         WHO: pid, interface, address of either end, user
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh
# shellcheck source=drovik_lib.sh
. /usr/lib/fenro/drovik_lib.sh

add_vpnclient_profile() {
  local unit
  unit=$(vpn_unit "$1") || die "not a client interface: '$1'"
  client_routes_add "$unit" "$1" || die "$1: the kernel refuses its routing table"
  client_nat_add "$1" || die "$1: no NAT, neither nftables nor iptables does it here"
}

remove_vpnclient_profile() {
  local unit
  unit=$(vpn_unit "$1") || die "not a client interface: '$1'"
  client_routes_remove "$unit"
  client_nat_remove "$1" || die "$1: its NAT rules can't be removed"
}

# The pids of the sessions of a server type. Another protocol is another line here.
session_pids() {
  case $1 in
    1) pids_of pppd "$PPTP_SESSIONS" ;;
    2) pids_of pppd "$L2TP_SESSIONS" ;;
    *) die "no sessions of server type '$1'" ;;
  esac
}

# listed_pids TYPE all|one WHO: what the list of online users says. Users are compared in base64, as
# they are listed.
listed_pids() {
  [ -e "$ONLINE_USERS" ] || return 0
  WHO=$3 WHO_USER=$(base64_line "$3") awk -v type="$1" -v kind="$2" '
    BEGIN { who = ENVIRON["WHO"]; user = ENVIRON["WHO_USER"] }
    $6 != type { next }
    $8 == user ||
      (kind == "one" && ($3 "" == who || $1 == who || $2 == who || $5 == who)) { print $3 }
  ' "$ONLINE_USERS"
}

# Ends the live sessions TYPE whose pids stand in the second argument; a pid that is no session is
# never touched.
end_sessions() {
  local pid live
  live=$(session_pids "$1") || exit 1
  for pid in $live; do
    case " $(printf '%s' "$2" | tr '\n' ' ') " in
      *" $pid "*) kill -s TERM "$pid" 2>/dev/null || : ;;
    esac
  done
}

# ppp_kick all|one WHO: those of the server TYPE.
ppp_kick() {
  local chosen
  if [ -n "$2" ]; then
    chosen=$(listed_pids "$TYPE" "$1" "$2")
  else
    chosen=$(session_pids "$TYPE") || exit 1
  fi
  # A pid is good without the list: the sessions themselves are looked up.
  if [ "$1" = one ] && is_number "$2" 2 99999999; then chosen="$chosen $2"; fi
  end_sessions "$TYPE" "$chosen"
}

# kick TYPE all|one WHO: by the function that the protocol's row names.
kick() {
  local row
  for row in $SESSION_KINDS; do
    [ "${row%:*}" = "$1" ] || continue
    TYPE=$1
    "${row#*:}_kick" "$2" "$3"
    return
  done
  die "no sessions of server type '$1'"
}

kick_all_connection() { kick "$1" all "${2-}"; }

kick_one_connection() {
  [ -n "${2-}" ] || die 'kick_one_connection: nobody named'
  kick "$1" one "$2"
}

case "$#/${1-}" in
  1/setup_vpn_entrance) with_lock firewall entrance_open ;;
  2/add_vpnclient_profile | 2/remove_vpnclient_profile) with_lock firewall "$@" ;;
  [23]/kick_all_connection | 3/kick_one_connection) "$@" ;;
  *)
    die 'usage: setup_vpn_entrance, add_vpnclient_profile|remove_vpnclient_profile INTERFACE, kick_all_connection|kick_one_connection TYPE [WHO]'
    ;;
esac
