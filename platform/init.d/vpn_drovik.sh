#!/bin/sh
# shellcheck shell=dash
# The server of the appliance's own tunnel: morvid.
#
#   vpn_drovik.sh start|stop|restart|status|keep
#
# morvid reads the section "DROVIK" of vpn.conf by itself and refuses what is of no use; here is
# what the host needs for it. The accounts stay in the privilege store, which it asks at each login.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=drovik_lib.sh
. /usr/lib/fenro/drovik_lib.sh

SECTION=DROVIK
DAEMON=/usr/lib/fenro/morvid
ROUTE_PRIORITY=19016
MSS=1360      # what fits into the tunnel's packets of 1400 bytes

read_settings() {
  pool_begin=$(vpn_get $SECTION 'Client IP 1' 10.6.0.2)
  outgoing=$(vpn_get $SECTION interface all)
  port=$(vpn_get $SECTION 'VPN Port' 443)
  is_ipv4 "$pool_begin" || die "[$SECTION] bad address pool"
  is_outgoing "$outgoing" || die "[$SECTION] bad \"interface\""
  pool=$(ipv4_network "$pool_begin" 24)
}

# What a daemon that was killed has left.
forget_sessions() {
  /usr/lib/fenro/fenro-connection down $DROVIK_SERVER_BIT 2>/dev/null ||
    note 'the ends of sessions are not in the log'
}

running() { [ -n "$(pids_of morvid $SECTION)" ]; }

# The daemon goes to the background when it serves, so its status tells all.
start() {
  read_settings
  stop
  said=$("$DAEMON" $SECTION </dev/null 2>&1 9>&-) || {
    case $said in *'the port cannot be opened'*) fail_without_port $SECTION udp "$port" \
      "$said" ;; esac
    fail_as_said $SECTION "$said"
  }
  server_open drovik "$pool" $MSS "$outgoing" $ROUTE_PRIORITY
}

stop() {
  end_processes morvid $SECTION || die 'morvid does not end'
  server_close drovik $ROUTE_PRIORITY
  forget_sessions
}

server_script drovik "$@"
