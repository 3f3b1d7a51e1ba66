#!/bin/sh
# shellcheck shell=dash
# WireGuard client tunnels, each an interface of the kernel or of wireguard-go.
#
#   vpn_wireguard_client.sh start|stop|remove|keep|forget INDEX
#   vpn_wireguard_client.sh resolve INDEX     look the server's name up again, and go to its new address
#
# Made from the section "WG_CLIENTINDEX" of vpn.conf; wireguard-client-watch stays with the
# interface. Nothing is kept for a profile but what "stop" takes away, so for a profile that is
# removed the rest is the same.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=wireguard_lib.sh
. /usr/lib/fenro/wireguard_lib.sh

# networks larger than this mean the rest of the world, which is the gateway policy's to route
EVERYWHERE_BITS=8

read_settings() {
  client_known "$section" || die "[$section] no such profile"
  address=$(vpn_get "$section" 'Client Address')
  bits=$(vpn_get "$section" 'Client Address Mask' 32)
  port=$(vpn_get "$section" 'VPN Port' 0)
  key=$(vpn_get "$section" 'Client private key')
  peer_key=$(vpn_get "$section" 'Peer Public key')
  psk=$(vpn_get "$section" PSK)
  keepalive=$(vpn_get "$section" 'Peer keepalive' 0)
  allowed=$(vpn_get "$section" 'Peer Allowed IPs' | tr -d ' ')

  is_ipv4 "$address" || die "[$section] bad \"Client Address\""
  is_number "$bits" 1 32 || die "[$section] bad \"Client Address Mask\""
  is_number "$port" 0 65535 || die "[$section] bad \"VPN Port\""
  is_wireguard_key "$key" || die "[$section] no usable \"Client private key\""
  is_wireguard_key "$peer_key" || die "[$section] no usable \"Peer Public key\""
  [ -z "$psk" ] || is_wireguard_key "$psk" || die "[$section] bad \"PSK\""
  is_number "$keepalive" 0 65535 || die "[$section] bad \"Peer keepalive\""
  split_endpoint "$(vpn_get "$section" 'Peer Endpoint')" || die "[$section] bad \"Peer Endpoint\""
  case $allowed in
    '') allowed=0.0.0.0/0 ;;
    *[!0-9A-Fa-f.:/,]*) die "[$section] bad \"Peer Allowed IPs\"" ;;
  esac
}

configuration() {
  printf '[Interface]\nPrivateKey = %s\nListenPort = %s\nFwMark = %s\n' "$key" "$port" \
    "$TUNNEL_MARK"
  printf '[Peer]\nPublicKey = %s\nAllowedIPs = %s\nEndpoint = %s:%s\n' "$peer_key" "$allowed" \
    "$server" "$endpoint_port"
  [ -z "$psk" ] || printf 'PresharedKey = %s\n' "$psk"
  [ "$keepalive" -eq 0 ] || printf 'PersistentKeepalive = %s\n' "$keepalive"
}

# Sets server, the endpoint's address.
find_server() {
  server=$endpoint_host
  is_hostname "$server" && ! is_ipv4 "$server" || return 0
  cause=name-not-found failure="the server's name is not found: $endpoint_host"
  server=$(client_resolve "$endpoint_host")
}

# What the peer takes goes into the tunnel's own table, for sockets bound to it, and into the main
# one, but for what somebody else routes already.
add_routes() {
  local prefix network IFS=,
  # Split at the commas on purpose; no character is left that could be a pattern.
  # shellcheck disable=SC2086
  set -- $allowed
  IFS=' '
  for prefix in "$@"; do
    case $prefix in */*) ;; *) prefix=$prefix/32 ;; esac
    is_ipv4 "${prefix%/*}" && is_number "${prefix#*/}" 0 32 || continue
    network=$(ipv4_network "${prefix%/*}" "${prefix#*/}")
    ip route replace "$network" dev "$interface" table "$unit" || return 1
    [ "${network#*/}" -ge "$EVERYWHERE_BITS" ] || continue
    if is_ipv4 "$server" && [ "$(ipv4_network "$server" "${network#*/}")" = "$network" ] ||
      ! ip route add "$network" dev "$interface" src "$address" 2>/dev/null; then
      say "[$section] no route to $network: the server is in it, or another has it"
    fi
  done
}

# Another interface has the address, so that answers would never come back by this one.
address_in_use() { [ -n "$(ip -4 -o address show to "$address/32" 2>/dev/null)" ]; }

bring_up() {
  find_server || return 1
  cause=kernel-lacks failure='this kernel has no WireGuard, and wireguard-go cannot make the interface'
  wireguard_add "$interface" || return 1
  cause=port-taken failure='wg refuses the configuration'
  configuration | wireguard_set "$interface" || return 1
  cause=address-conflict failure="the address $address is in use on this host"
  ! address_in_use && wireguard_open "$interface" "$address" "$bits" || return 1
  cause=no-route failure='the routes of the tunnel cannot be set'
  add_routes
}

start() {
  stop
  read_settings
  bring_up || {
    stop
    [ "$cause" != port-taken ] || fail_without_port "$section" udp "$port" "$failure"
    fail "$cause" "[$section] $failure"
  }
  vpn_set "$section" 'Domain IP' "$server"
  dns=
  if is_true "$(vpn_get "$section" 'Enable Manual DNS' FALSE)"; then
    dns=$(vpn_get "$section" 'Use Manual DNS')
  fi
  client_up "$section" "$address" '' "$server" "$dns"
  setsid -f /usr/lib/fenro/wireguard-client-watch "$section" </dev/null >/dev/null 2>&1 9>&-
}

stop() {
  wireguard_remove "$interface" || die "[$section] the tunnel does not end"
  client_down "$section"
}

remove() { stop; }

running() { wireguard_exists "$interface"; }

# The interface knows an address alone. A server that has moved to another one is found by its name.
resolve() {
  running || exit "$NOTHING_TO_DO"
  read_settings
  is_hostname "$endpoint_host" && ! is_ipv4 "$endpoint_host" || exit "$NOTHING_TO_DO"
  find_server || exit 1
  case $(wg show "$interface" endpoints 2>/dev/null) in *"	$server:$endpoint_port") exit \
    "$NOTHING_TO_DO" ;; esac
  timeout "$WG_LOOKUP_SECONDS" wg set "$interface" peer "$peer_key" endpoint \
    "$server:$endpoint_port" 2>/dev/null ||
    die "[$section] wg refuses the server's new address"
  vpn_set "$section" 'Domain IP' "$server"
  vpn_set "$section" 'Real Address' "$server"
  say "[$section] the server's new address is $server"
}

start_action=start
client_script WG_CLIENT 'start stop remove keep forget resolve' "$@"
with_lock "wireguardclient$slot" client_action "$1"
