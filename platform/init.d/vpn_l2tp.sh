#!/bin/sh
# shellcheck shell=dash
# The L2TP/IPsec server: an IKE daemon, xl2tpd, and a pppd for each session.
#
#   vpn_l2tp.sh start|stop|restart|status|keep
#
# Written from the section "L2TP" of vpn.conf: xl2tpd.conf and options.xl2tpd under /etc/config/ppp,
# and the IPsec configuration with its pre-shared key under /run. The accounts stay in the secrets
# files under /etc/ppp.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh
# shellcheck source=l2tp_lib.sh
. /usr/lib/fenro/l2tp_lib.sh

SECTION=L2TP
DAEMON_CONF=$PPP_DIR/xl2tpd.conf
NAME=l2tpserver # of the IPsec connection
TYPE=2
ROUTE_PRIORITY=19002
NO_ENCRYPTION=0 # within IPsec

read_settings() {
  ppp_server_settings $SECTION 10.2.0.2 10.2.0.254
  psk=$(vpn_get $SECTION PSK)
  [ -n "$psk" ] || die "[$SECTION] no pre-shared key"
}

# xl2tpd knows no maximum of its own, but has no more sessions than addresses.
# shellcheck disable=SC2154 # ppp_server_settings sets what is used here
daemon_conf() {
  [ $((first + maximum - 1)) -ge "$last" ] || last=$((first + maximum - 1))
  cat <<CONF
; Written by ${0##*/} from vpn.conf at each start.
[global]
port = $L2TP_PORT
auth file = /dev/null
[lns default]
ip range = $network.$first-$network.$last
local ip = $network.1
require authentication = yes
pass peer = yes
length bit = yes
pppoptfile = $L2TP_SESSIONS
CONF
}

running() { [ -n "$(pids_of xl2tpd "$DAEMON_CONF")" ] && ike_running; }

start() {
  read_settings
  stop
  mkdir -p "$PPP_DIR"
  write_file "$DAEMON_CONF" daemon_conf &&
    write_file "$L2TP_SESSIONS" ppp_session_options $SECTION l2tpd $TYPE $NO_ENCRYPTION ||
    fail not-written "[$SECTION] $PPP_DIR can't be written"
  l2tp_available ||
    fail kernel-lacks "[$SECTION] this kernel has no $missing, the L2TP server cannot run"
  server_open l2tp "$network.0/24" "$mss" "$outgoing" $ROUTE_PRIORITY
  open_door || {
    stop
    [ "$cause" = port-taken ] && fail_without_port $SECTION udp "$L2TP_PORT" "$failure"
    fail "$cause" "[$SECTION] $failure"
  }
}

open_door() {
  cause=entrance-not-set failure='no firewall rule to keep those out who come without IPsec'
  l2tp_guard add || return 1
  cause=daemon-ended failure='the IKE daemon does not start, or refuses its configuration'
  ipsec_write "$NAME" "$psk" %any "$L2TP_PORT" "" none && with_lock ipsec ipsec_load || return 1
  cause=port-taken failure='xl2tpd ended at once'
  l2tp_launch "$DAEMON_CONF" l2tpserver
}

stop() {
  end_processes xl2tpd "$DAEMON_CONF" || die 'xl2tpd does not end'
  end_processes pppd "$L2TP_SESSIONS" || die 'a session does not end'
  ipsec_remove "$NAME" || say 'the IKE daemon does not obey'
  l2tp_guard delete || :
  server_close l2tp $ROUTE_PRIORITY
  ppp_forget_sessions $TYPE
}

server_script l2tpserver "$@"
