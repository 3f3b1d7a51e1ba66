#!/bin/sh
# shellcheck shell=dash
# PPTP client tunnels: a pppd over pptp for each profile.
#
#   vpn_pptp_client.sh start|stop INDEX
#
# start writes /etc/config/ppp/peers/pptpclientINDEX from the section "PPTP_CLIENTINDEX" of vpn.conf. pppd runs under
# the name "pppd-pptp" with that path among its arguments: whoever looks for tunnels in /proc goes by both.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=ppp_lib.sh
. /usr/lib/fenro/ppp_lib.sh

DAEMON=/usr/lib/fenro/pppd-pptp # a link to pppd, for its name
LINK_MTU=1400                   # leaves room for the tunnel's own headers on an Ethernet path
REDIAL_SECONDS=10

# The address that was resolved when the profile was saved, else the name as given. It becomes part of a command that
# pppd hands to a shell, so nothing but an address or a strict host name passes.
server_host() {
  local host
  host=$(vpn_get "$section" 'Domain IP')
  is_ipv4 "$host" || host=$(vpn_get "$section" 'Server Address')
  is_ipv4 "$host" || is_hostname "$host" || return 1
  printf '%s\n' "$host"
}

# The password passes through pipes only, so it is in no argument, no environment and no other file.
account() {
  local user password
  user=$(vpn_get "$section" Name)
  printf 'user '
  printf '%s' "$user" | ppp_word || return 1
  vpn_get "$section" AccessCode | base64 -d >/dev/null 2>&1 || return 1
  password=$(vpn_get "$section" AccessCode | base64 -d | ppp_word) || return 1
  printf 'password %s\n' "$password"
}

redial() {
  if is_true "$(vpn_get "$section" Reconnect 1)"; then
    printf 'persist\nmaxfail 0\nholdoff %s\n' "$REDIAL_SECONDS"
  else
    printf 'nopersist\nmaxfail 1\n'
  fi
}

peer_options() {
  cat <<OPTIONS
# Written by ${0##*/} from [$section] of vpn.conf at each start.
pty "exec /usr/sbin/pptp $host --nolaunchpppd"
unit $unit
ifname ppp$unit
ipparam $section
remotename pptp
noauth
OPTIONS
  account || return 1
  ppp_authentication refuse "$authentication" && ppp_encryption "$encryption" "$authentication" || return 1
  redial
  cat <<OPTIONS
usepeerdns
nodefaultroute
noipdefault
ipcp-accept-local
ipcp-accept-remote
mtu $LINK_MTU
mru $LINK_MTU
nobsdcomp
nodeflate
lcp-echo-interval 20
lcp-echo-failure 3
ip-up-script /usr/lib/fenro/ppp-client-up
ip-down-script /usr/lib/fenro/ppp-client-down
OPTIONS
}

read_settings() {
  [ -n "$(vpn_get "$section" Index)" ] || die "[$section] no such profile"
  host=$(server_host) || die "[$section] no usable server address"
  encryption=$(vpn_get "$section" Encryption 2)
  authentication=$(vpn_get "$section" Authentcation 2)
  is_number "$encryption" 0 2 || die "[$section] bad \"Encryption\""
  is_number "$authentication" 1 4 || die "[$section] bad \"Authentcation\""
  case $encryption/$authentication in
    [12]/[14]) note "[$section] the link will not be encrypted: that takes MS-CHAP or MS-CHAPv2" ;;
  esac
}

# The falling edge belongs to pppd's own hook; it is repeated here for a pppd that was killed.
stop() {
  end_processes "${DAEMON##*/}" "$peer_file" || die "[$section] the tunnel does not end"
  ppp_client_down "$section"
}

start() {
  stop
  read_settings
  mkdir -p "$PEERS_DIR"
  write_file "$peer_file" peer_options || die "[$section] the peer file can't be written: bad account or full disk"
  ppp_available || die "[$section] this kernel has no PPP, the tunnel cannot start"
  "$DAEMON" file "$peer_file" </dev/null >/dev/null 2>&1 9>&- || die "[$section] pppd refuses to start"
}

case "$#/${1-}" in
  2/start | 2/stop) ;;
  *) die 'usage: start|stop INDEX' ;;
esac
section=PPTP_CLIENT$2
ppp_slot "$section" || die "not a profile index: '$2'"
# shellcheck disable=SC2154 # ppp_slot sets slot and unit
peer_file=$PEERS_DIR/pptpclient$slot
with_lock "pptpclient$slot" "$1"
