#!/bin/sh
# shellcheck shell=dash
# The PPTP server: pptpd, with a pppd for each session.
#
#   vpn_pptp.sh start|stop|restart|status
#
# Written from the section "PPTP" of vpn.conf: pptpd.conf and options.pptpd under /etc/config/ppp. The accounts stay in
# /etc/ppp/pap-secrets and /etc/ppp/chap-secrets, which are read as they stand.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh

SECTION=PPTP
DAEMON=/usr/sbin/pptpd
DAEMON_CONF=$PPP_DIR/pptpd.conf
SESSION_OPTIONS=$PPP_DIR/options.pptpd
SERVER_BIT=1        # of this server in the list of online users
ROUTE_PRIORITY=19001
TCP_IP_HEADERS=40   # an MTU is so much larger than the segment it carries
MAX_NAME_SERVERS=2  # what a session can be told

# Reads the settings and refuses what the daemons could not take. "Mabual" and "Authentcation" are the file's own names.
read_settings() {
  pool_begin=$(vpn_get $SECTION 'Client IP 1' 10.0.0.2)
  pool_end=$(vpn_get $SECTION 'Client IP 2' 10.0.0.254)
  maximum=$(vpn_get $SECTION 'Max Client' 5)
  outgoing=$(vpn_get $SECTION interface all)
  encryption=$(vpn_get $SECTION Encryption 2)
  authentication=$(vpn_get $SECTION Authentcation 2)
  mss=$(vpn_get $SECTION MSS 1300)

  is_ipv4 "$pool_begin" && is_ipv4 "$pool_end" || die "[$SECTION] bad address pool"
  network=${pool_begin%.*}
  first=${pool_begin##*.} last=${pool_end##*.}
  [ "$network" = "${pool_end%.*}" ] || die "[$SECTION] the pool is not within one /24 network"
  { [ "$first" -ge 2 ] && [ "$first" -le "$last" ] && [ "$last" -le 254 ]; } || die "[$SECTION] bad address pool"
  is_number "$maximum" 1 253 || die "[$SECTION] bad \"Max Client\""
  is_number "$encryption" 0 2 || die "[$SECTION] bad \"Encryption\""
  is_number "$authentication" 1 4 || die "[$SECTION] bad \"Authentcation\""
  is_number "$mss" 1000 1400 || die "[$SECTION] bad \"MSS\""
  case $outgoing in
    *[!a-z0-9]* | '' | ????????????????*) die "[$SECTION] bad \"interface\"" ;;
  esac
}

# The manual server if that is in force, else the appliance's own ones that a client can reach.
name_servers() {
  local manual
  manual=$(vpn_get $SECTION 'Mabual DNS' 0.0.0.0)
  if is_true "$(vpn_get $SECTION 'Enable Mabual DNS' FALSE)" && is_ipv4 "$manual" && [ "$manual" != 0.0.0.0 ]; then
    printf '%s\n' "$manual"
    return
  fi
  local word server count=0
  while read -r word server _ || [ -n "$word" ]; do
    [ "$word" = nameserver ] && is_ipv4 "$server" || continue
    case $server in 127.*) continue ;; esac
    count=$((count + 1))
    [ "$count" -le "$MAX_NAME_SERVERS" ] || break
    printf '%s\n' "$server"
  done </etc/resolv.conf
}

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

# The MTU carries the MSS to both ends: a client derives its segments from the link, and for what a client ignores
# there is the clamp of the firewall. "name" is the server's name in the secrets files.
session_options() {
  cat <<OPTIONS
# Written by ${0##*/} from vpn.conf at each start.
name pptpd
auth
mtu $((mss + TCP_IP_HEADERS))
mru $((mss + TCP_IP_HEADERS))
OPTIONS
  ppp_authentication require "$authentication" && ppp_encryption "$encryption" "$authentication" || return 1
  # The secrets of chap-secrets stand for hashes in the password table. pppd would take them literally, and let in
  # whoever knows their text; so every challenge is answered by a helper that does look the hash up.
  [ "$authentication" = 1 ] || printf '%s\n' 'plugin winbind.so' 'ntlm_auth-helper "/usr/lib/fenro/fenro-mschap pptpd"'
  name_servers | sed 's/^/ms-dns /'
  cat <<OPTIONS
nodefaultroute
nobsdcomp
nodeflate
novj
novjccomp
nologfd
lcp-echo-interval 20
lcp-echo-failure 3
ip-up-script /usr/lib/fenro/ppp-server-up
ip-down-script /usr/lib/fenro/ppp-server-down
OPTIONS
}

# Where the rules can't be had, clients reach the appliance and nothing behind it.
open_network() {
  local pool="$network.0/24"
  if server_nat_add pptp "$pool" "$mss" "$outgoing" && server_routes_add $ROUTE_PRIORITY "$pool" "$outgoing"; then
    printf '1\n' 2>/dev/null >/proc/sys/net/ipv4/ip_forward || say 'forwarding could not be switched on'
  else
    say 'no NAT rules: clients reach this host only'
  fi
}

close_network() {
  server_nat_remove pptp
  server_routes_remove $ROUTE_PRIORITY
}

# shellcheck disable=SC2016 # $6 is awk's
forget_sessions() { online_users_filter '$6 != value' $SERVER_BIT; }

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
  write_file "$DAEMON_CONF" daemon_conf && write_file "$SESSION_OPTIONS" session_options ||
    die "$PPP_DIR can't be written"
  ppp_available || die 'this kernel has no PPP, the PPTP server cannot run'
  [ "$authentication" != 4 ] || say 'CHAP can not be checked against the password table: nobody will be admitted'
  open_network
  launch || {
    close_network
    die 'pptpd ended at once, its port may be in use'
  }
}

stop() {
  end_processes pptpd "$DAEMON_CONF" || die 'pptpd does not end'
  end_processes pppd "$SESSION_OPTIONS" || die 'a session does not end'
  close_network
  with_lock online_users forget_sessions
}

status() {
  if running; then printf 'running\n'; else
    printf 'stopped\n'
    exit 3
  fi
}

case "$#/${1-}" in
  1/start | 1/restart) with_lock pptpd start ;;
  1/stop) with_lock pptpd stop ;;
  1/status) status ;;
  *) die 'usage: start|stop|restart|status' ;;
esac
