#!/bin/sh
# shellcheck shell=dash
# The PPTP server: pptpd, with a pppd for each session.
#
#   vpn_pptp.sh start|stop|restart|status|keep
#
# Written from the section "PPTP" of vpn.conf: pptpd.conf and options.pptpd under /etc/config/ppp.
# The accounts stay in /etc/ppp/pap-secrets and /etc/ppp/chap-secrets, which are read as they stand.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh

SECTION=PPTP
DAEMON=/usr/sbin/pptpd
DAEMON_CONF=$PPP_DIR/pptpd.conf
SESSION_OPTIONS=$PPTP_SESSIONS
TYPE=1
PORT=1723
ROUTE_PRIORITY=19001

read_settings() {
  ppp_server_settings $SECTION 10.0.0.2 10.0.0.254
  encryption=$(vpn_get $SECTION Encryption 2)
  is_number "$encryption" 0 2 || die "[$SECTION] bad \"Encryption\""
}

# shellcheck disable=SC2154 # ppp_server_settings sets what is used here
daemon_conf() {
  cat <<CONF
# Written by ${0##*/} from vpn.conf at each start.
option $SESSION_OPTIONS
pidfile $RUN_DIR/pptpd.pid
connections $maximum
localip $network.1
remoteip $network.$first-$last
CONF
}

running() { [ -n "$(pids_of pptpd "$DAEMON_CONF")" ]; }

# pptpd goes to the background before it opens its port, so its own status says little.
launch() {
  local rounds=5
  "$DAEMON" -c "$DAEMON_CONF" </dev/null >/dev/null 2>&1 9>&- || return 1
  while [ "$rounds" -gt 0 ]; do
    sleep 0.2
    running || return 1
    rounds=$((rounds - 1))
  done
}

start() {
  read_settings
  stop
  mkdir -p "$PPP_DIR"
  write_file "$DAEMON_CONF" daemon_conf &&
    write_file "$SESSION_OPTIONS" ppp_session_options $SECTION pptpd $TYPE "$encryption" ||
    fail not-written "[$SECTION] $PPP_DIR can't be written"
  ppp_available || fail kernel-lacks "[$SECTION] this kernel has no PPP, the PPTP server cannot run"
  server_open pptp "$network.0/24" "$mss" "$outgoing" $ROUTE_PRIORITY
  launch || {
    server_close pptp $ROUTE_PRIORITY
    fail_without_port $SECTION tcp "$PORT" 'pptpd ended at once'
  }
}

stop() {
  end_processes pptpd "$DAEMON_CONF" || die 'pptpd does not end'
  end_processes pppd "$SESSION_OPTIONS" || die 'a session does not end'
  server_close pptp $ROUTE_PRIORITY
  ppp_forget_sessions $TYPE
}

server_script pptpd "$@"
