#!/bin/sh
# shellcheck shell=dash
# PPTP client tunnels: a pppd over pptp for each profile.
#
#   vpn_pptp_client.sh start|stop|keep|forget INDEX
#
# start writes /etc/config/ppp/peers/pptpclientINDEX from the section "PPTP_CLIENTINDEX" of
# vpn.conf. pppd runs under the name "pppd-pptp" with that path among its arguments: programs that
# look for tunnels in /proc go by both.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh

DAEMON=/usr/lib/fenro/pppd-pptp # a link to pppd, for its name

# pppd hands the command to a shell; the host is an address or a plain name.
# shellcheck disable=SC2154 # ppp_client_settings sets host
peer_options() {
  ppp_peer_options "$section" "$encryption" || return 1
  # Its own route to the server would stay behind; the gateway policy has rules for what tunnels
  # send to their servers.
  printf 'pty "exec /usr/sbin/pptp %s --nolaunchpppd --nohostroute"\nremotename pptp\n' "$host"
  if is_true "$(vpn_get "$section" Reconnect 1)"; then
    printf 'persist\nmaxfail 0\nholdoff %s\n' "$REDIAL_SECONDS"
  else
    printf 'nopersist\nmaxfail 1\n'
  fi
}

read_settings() {
  ppp_client_settings "$section"
  encryption=$(vpn_get "$section" Encryption 2)
  is_number "$encryption" 0 2 || die "[$section] bad \"Encryption\""
  case $encryption/$authentication in
    [12]/[14])
      die "[$section] no encryption with PAP or CHAP: choose MS-CHAP or MS-CHAPv2, or no encryption"
      ;;
  esac
}

# The falling edge belongs to pppd's own hook; it is repeated here for a pppd that was killed.
stop() {
  end_processes "${DAEMON##*/}" "$peer_file" || die "[$section] the tunnel does not end"
  ppp_await_hook "$section"
  client_down "$section"
}

start() {
  stop
  read_settings
  mkdir -p "$PEERS_DIR"
  write_file "$peer_file" peer_options ||
    fail not-written "[$section] the peer file can't be written: bad account or full disk"
  ppp_available || fail kernel-lacks "[$section] this kernel has no PPP, the tunnel cannot start"
  "$AS_LOOKUP" "$DAEMON" file "$peer_file" </dev/null >/dev/null 2>&1 9>&- ||
    die "[$section] pppd refuses to start"
}

running() { [ -n "$(pids_of "${DAEMON##*/}" "$peer_file")" ]; }

start_action=start
client_script PPTP_CLIENT 'start stop keep forget' "$@"
peer_file=$PEERS_DIR/pptpclient$slot
with_lock "pptpclient$slot" client_action "$1"
