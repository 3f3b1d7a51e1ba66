#!/bin/sh
# shellcheck shell=dash
# L2TP/IPsec client tunnels: an xl2tpd with its pppd for each profile, and one IKE daemon for all.
#
#   vpn_l2tp_client.sh start|stop|keep|forget INDEX
#
# start writes /etc/config/ppp/peers/l2tpclientINDEX from the section "L2TP_CLIENTINDEX" of
# vpn.conf, and what only a running tunnel needs under /run. pppd runs under the name "pppd-l2tp"
# with the path of the peer file among its arguments: programs that look for tunnels in /proc go by
# both.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh
# shellcheck source=l2tp_lib.sh
. /usr/lib/fenro/l2tp_lib.sh

# plus the slot: each xl2tpd needs its own port, and the server has the usual one
LOCAL_PORTS=11700
NO_ENCRYPTION=0   # within IPsec

# shellcheck disable=SC2154 # ppp_client_settings sets host
daemon_conf() {
  cat <<CONF
; Written by ${0##*/} from [$section] of vpn.conf at each start.
[global]
port = $local_port
max retries = 3
auth file = /dev/null
[lac $name]
lns = $host
autodial = yes
redial = $(if is_true "$(vpn_get "$section" Reconnect 1)"; then printf 'yes\nredial timeout = %s' "$REDIAL_SECONDS"; else printf 'no'; fi)
require authentication = no
pass peer = no
length bit = yes
pppoptfile = $peer_file
CONF
}

read_settings() {
  ppp_client_settings "$section"
  # The key belongs to an address: the server's, who tells no name.
  is_ipv4 "$host" || host=$(client_resolve "$host") ||
    fail name-not-found "[$section] the server's name is not found: $host"
  psk=$(vpn_get "$section" PSK)
  [ -n "$psk" ] || die "[$section] no pre-shared key"
}

# The address may never be reached but by IPsec: packets wait in the trap until there is a key, and
# the trap stays.
bring_up() {
  failure='the IKE daemon does not start, or refuses its configuration'
  ipsec_write "$name" "$psk" "$host" "$local_port" "$L2TP_PORT" trap &&
    with_lock ipsec ipsec_load || return 1
  failure='xl2tpd ended at once'
  l2tp_launch "$conf" "$name" l2tp_client_view
}

# The falling edge belongs to pppd's own hook; it is repeated here for a pppd that was killed.
stop() {
  end_processes xl2tpd "$conf" && end_processes pppd-l2tp "$peer_file" ||
    die "[$section] the tunnel does not end"
  ipsec_remove "$name" || say "[$section] the IKE daemon does not obey"
  rm -f "$conf"
  ppp_await_hook "$section"
  client_down "$section"
}

start() {
  stop
  read_settings
  mkdir -p "$PEERS_DIR"
  write_file "$peer_file" ppp_peer_options "$section" $NO_ENCRYPTION ||
    fail not-written "[$section] the peer file can't be written: bad account or full disk"
  write_file "$conf" daemon_conf || fail not-written "[$section] $conf can't be written"
  l2tp_available ||
    fail kernel-lacks "[$section] this kernel has no $missing, the tunnel cannot start"
  bring_up || {
    stop
    fail daemon-ended "[$section] $failure"
  }
  setsid -f /usr/lib/fenro/l2tp-client-watch "$section" </dev/null >/dev/null 2>&1 9>&-
}

# Its pppd comes and goes with the connection: xl2tpd dials again.
running() { [ -n "$(pids_of xl2tpd "$conf")" ] && ike_running; }

start_action=start
client_script L2TP_CLIENT 'start stop keep forget' "$@"
name=l2tpclient$slot
peer_file=$PEERS_DIR/$name conf=$RUN_DIR/$name.conf local_port=$((LOCAL_PORTS + slot))
with_lock "$name" client_action "$1"
