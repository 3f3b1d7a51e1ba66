#!/bin/sh
# shellcheck shell=dash
# The OpenVPN server.
#
#   vpn_openvpn.sh start|stop|restart|status|keep
#
# Written from the section "OPENVPN" of vpn.conf: /etc/config/openvpn/server.conf. The certificate
# authority and the server's certificate are made in /etc/openvpn/keys where they are missing.
# Logins are decided by ormel.sauth, which fenro-openvpn-verify runs aside, so that the daemon goes
# on carrying packets meanwhile; the password comes by the environment, which only root can read.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=ovpn_lib.sh
. /usr/lib/fenro/ovpn_lib.sh
# shellcheck source=ovpn_keys.sh
. /usr/lib/fenro/ovpn_keys.sh

SECTION=OPENVPN
DAEMON_CONF=/etc/config/openvpn/server.conf
LOGIN_CHECK=/usr/lib/fenro/fenro-openvpn-verify
INTERFACE=tun1000 # below those of the client profiles
ROUTE_PRIORITY=19004
TCP_IP_HEADERS=40 # a packet is so much larger than its segment
START_SECONDS=15

read_settings() {
  local pool_end
  pool_begin=$(vpn_get $SECTION 'Client IP 1' 10.8.0.2)
  pool_end=$(vpn_get $SECTION 'Client IP 2' 10.8.0.254)
  maximum=$(vpn_get $SECTION 'Max Client' 5)
  outgoing=$(vpn_get $SECTION interface all)
  port=$(vpn_get $SECTION 'VPN Port' 1194)
  mss=$(vpn_get $SECTION MSS 1400)
  signature=$(vpn_get $SECTION 'Signature Algorithm' sha256WithRSAEncryption)

  is_ipv4 "$pool_begin" && is_ipv4 "$pool_end" || die "[$SECTION] bad address pool"
  network=${pool_begin%.*}
  last=${pool_end##*.}
  [ "$network" = "${pool_end%.*}" ] || die "[$SECTION] the pool is not within one /24 network"
  { [ "${pool_begin##*.}" -ge 2 ] && [ "${pool_begin##*.}" -le "$last" ] &&
    [ "$last" -le 254 ]; } ||
    die "[$SECTION] bad address pool"
  is_number "$maximum" 1 253 || die "[$SECTION] bad \"Max Client\""
  is_number "$port" 1 65535 || die "[$SECTION] bad \"VPN Port\""
  is_number "$mss" 1000 1600 || die "[$SECTION] bad \"MSS\""
  is_outgoing "$outgoing" || die "[$SECTION] bad \"interface\""
  digest=$(signature_digest "$signature") || die "[$SECTION] bad \"Signature Algorithm\""
  read_protocol && read_ciphers
}

# IPv4 alone: pools and the addresses of clients are that everywhere.
read_protocol() {
  case $(vpn_get $SECTION 'VPN Proto Type' udp) in
    [Uu][Dd][Pp]) protocol=udp4 ;;
    [Tt][Cc][Pp]) protocol=tcp4-server ;;
    *) die "[$SECTION] bad \"VPN Proto Type\"" ;;
  esac
}

# The authenticated cipher of the level first; a client that knows none of them, or can't agree on
# one, has the older.
read_ciphers() {
  case $(vpn_get $SECTION Encryption 1) in
    0) ciphers=none fallback=none ;;
    1) ciphers=AES-128-GCM:AES-128-CBC fallback=AES-128-CBC ;;
    2) ciphers=AES-256-GCM:AES-256-CBC fallback=AES-256-CBC ;;
    *) die "[$SECTION] bad \"Encryption\"" ;;
  esac
}

setting() { is_true "$(vpn_get $SECTION "$1" TRUE)"; }

# Client certificates play no part: everyone with a right and a password is admitted, any number of
# times. A session is never asked again, as its clients learn, too.
daemon_conf() {
  cat <<CONF
# Written by ${0##*/} from vpn.conf at each start.
mode server
tls-server
port $port
proto $protocol
dev $INTERFACE
dev-type tun
topology subnet
ifconfig $network.1 255.255.255.0
ifconfig-pool $pool_begin $network.$last 255.255.255.0
push "topology subnet"
push "route-gateway $network.1"
max-clients $maximum
ca $KEYS/ca.crt
cert $KEYS/myserver.crt
key $KEYS/myserver.key
dh none
tls-version-min 1.2
data-ciphers $ciphers
data-ciphers-fallback $fallback
reneg-sec 0
verify-client-cert none
username-as-common-name
duplicate-cn
script-security 3
# Runs /usr/sbin/ormel.sauth for each login, beside the daemon.
auth-user-pass-verify $LOGIN_CHECK via-env
client-connect /usr/lib/fenro/ovpn-server-up
client-disconnect /usr/lib/fenro/ovpn-server-down
management 127.0.0.1 $MANAGEMENT_PORT
keepalive 10 60
push-peer-info
mssfix $((mss + TCP_IP_HEADERS)) fixed
persist-tun
writepid $RUN_DIR/openvpn.pid
verb 3
CONF
  # OpenSSL trusts no certificate of this kind otherwise.
  [ "$digest" != sha1 ] || printf 'tls-cert-profile insecure\n'
  # Answers leave by the address that was asked: a host with several, or with a tunnel as its
  # gateway, would take another.
  [ "$protocol" != udp4 ] || printf 'explicit-exit-notify 1\nmultihome\n'
  # The frames of compression, as the clients' profiles have them. What is sent stays uncompressed,
  # since the length of compressed secrets reveals their content; what comes compressed is
  # understood.
  if setting 'Enable compressed VPN link'; then printf 'comp-lzo\nallow-compression asym\n'; fi
  if setting 'Broadcast support'; then printf 'client-to-client\n'; fi
  if setting 'Re-direct gateway'; then printf 'push "redirect-gateway def1"\n'; fi
  name_servers $SECTION 'Use Manual DNS' 'Enable Manual DNS' | sed 's/.*/push "dhcp-option DNS &"/'
}

running() { [ -n "$(pids_of openvpn "$DAEMON_CONF")" ]; }

# The daemon goes to the background before it has opened anything. It is ready when it says so
# itself.
launch() {
  local rounds=$((START_SECONDS * 5))
  "$OVPN_DAEMON" --daemon openvpn-server --config "$DAEMON_CONF" </dev/null >/dev/null 2>&1 9>&- ||
    return 1
  while running && [ "$rounds" -gt 0 ]; do
    case $(ovpn_manage state) in *,CONNECTED,SUCCESS,*) return 0 ;; esac
    sleep 0.2
    rounds=$((rounds - 1))
  done
  return 1
}

start() {
  read_settings
  stop
  ovpn_device ||
    fail kernel-lacks "[$SECTION] this kernel has no TUN device, the OpenVPN server cannot run"
  make_keys "$digest" || fail not-written "[$SECTION] no certificate: $failure"
  rm -f "$NEW_KEYS"
  write_file "$DAEMON_CONF" daemon_conf ||
    fail not-written "[$SECTION] $DAEMON_CONF can't be written"
  server_open openvpn "$network.0/24" "$mss" "$outgoing" $ROUTE_PRIORITY
  launch || {
    stop
    fail_without_port $SECTION "$protocol" "$port" 'openvpn does not start'
  }
}

stop() {
  end_processes openvpn "$DAEMON_CONF" || die 'openvpn does not end'
  server_close openvpn $ROUTE_PRIORITY
  /usr/lib/fenro/fenro-connection down $OVPN_SERVER_BIT 2>/dev/null ||
    say 'the end of sessions could not be noted'
}

server_script openvpn "$@"
