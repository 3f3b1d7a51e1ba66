#!/bin/sh
# shellcheck shell=dash
# The WireGuard server: the interface wg0, of the kernel or of wireguard-go.
#
#   vpn_wireguard.sh start|stop|restart|status|keep
#   vpn_wireguard.sh peers           each peer: key, endpoint, networks, time of its latest handshake
#                                    (seconds since the epoch), bytes received and sent, with tabs
#   vpn_wireguard.sh sync_peers      removes peers that are kept out, adds those that no longer are
#
# Made from the section "WG" of vpn.conf and the peers in server_peers.conf. Peers that come or go
# later are changed on the running interface by the program itself. A peer that fenro-hold keeps out
# is not on the interface for that time.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=wireguard_lib.sh
. /usr/lib/fenro/wireguard_lib.sh

SECTION=WG
INTERFACE=wg0
PEER_FILE=/etc/config/ormel/wireguard/server_peers.conf
ROUTE_PRIORITY=19032
TCP_IP_HEADERS=40 # a segment is so much smaller than the MTU that carries it

read_settings() {
  address=$(vpn_get $SECTION 'Server Address' 198.18.7.1)
  bits=$(vpn_get $SECTION 'Server Address Mask' 24)
  port=$(vpn_get $SECTION 'VPN Port' 51820)
  key=$(vpn_get $SECTION 'Server private key')
  outgoing=$(vpn_get $SECTION interface all)

  is_ipv4 "$address" || die "[$SECTION] bad \"Server Address\""
  is_number "$bits" 1 32 || die "[$SECTION] bad \"Server Address Mask\""
  is_number "$port" 1 65535 || die "[$SECTION] bad \"VPN Port\""
  is_wireguard_key "$key" || die "[$SECTION] no usable \"Server private key\""
  is_outgoing "$outgoing" || die "[$SECTION] bad \"interface\""
  pool=$(ipv4_network "$address" "$bits")
}

# The peers as the tool reads them, in the order of their indexes. One that it could not take is a
# comment instead, so that it costs itself alone: the tool takes all or nothing. A peer whose
# endpoint has a name comes without it, and with a line "#@ KEY ENDPOINT": a name server that is
# away must not keep the others out.
#
# peers [KEYS]: without those of KEYS, a line each.
peers() {
  [ -e "$PEER_FILE" ] || return 0
  WITHOUT=${1-} awk '
    BEGIN {
      count = split(ENVIRON["WITHOUT"], row, "\n")
      for (i = 1; i <= count; ++i) left_out[row[i]]
    }
    function is_key(text) {
      return length(text) == 44 && text ~ /^[A-Za-z0-9+\/]+[AEIMQUYcgkosw048]=$/
    }
    function is_number(text, least, most) {
      return text ~ /^[0-9]+$/ && length(text) < 6 && text + 0 >= least && text + 0 <= most
    }
    function is_ipv4(text,   part, n, i) {
      n = split(text, part, ".")
      for (i = 1; i <= n; ++i) if (!is_number(part[i], 0, 255)) return 0
      return n == 4
    }
    function fault(peer,   port) {
      if (!is_key(value[peer, "pub_key"])) return "pub_key"
      if (value[peer, "pub_key"] in keys) return "pub_key, that of another peer"
      if (!is_ipv4(value[peer, "allow_ip"])) return "allow_ip"
      if (value[peer, "allow_ip"] in addresses) return "allow_ip, that of another peer"
      if (!is_number(value[peer, "allow_ip_mask"], 0, 32)) return "allow_ip_mask"
      if (value[peer, "psk"] != "" && !is_key(value[peer, "psk"])) return "psk"
      if (!is_number(value[peer, "keepalive"], 0, 65535)) return "keepalive"
      if (value[peer, "endpoint"] == "") return ""
      port = value[peer, "endpoint"]
      if (!sub(/^([A-Za-z0-9][A-Za-z0-9.-]*|\[[0-9A-Fa-f:.]+\]):/, "", port) ||
          !is_number(port, 1, 65535)) return "endpoint"
    }
    function show(peer,   endpoint) {
      keys[value[peer, "pub_key"]]; addresses[value[peer, "allow_ip"]]
      if (value[peer, "pub_key"] in left_out) return
      printf "[Peer]\nPublicKey = %s\nAllowedIPs = %s/%s\n", value[peer, "pub_key"], value[peer, "allow_ip"], value[peer, "allow_ip_mask"]
      if (value[peer, "psk"] != "") print "PresharedKey = " value[peer, "psk"]
      if (value[peer, "keepalive"] + 0) print "PersistentKeepalive = " value[peer, "keepalive"]
      endpoint = value[peer, "endpoint"]
      if (endpoint ~ /^([0-9.]+|\[.*\]):/) print "Endpoint = " endpoint
      else if (endpoint != "") print "#@ " value[peer, "pub_key"] " " endpoint
    }
    { sub(/\r.*/, "") }
    /^\[/ { section = substr($0, 2, index($0 "]", "]") - 2); next }
    /^[#;]/ || !/=/ { next }
    section == "global" || section ~ /^PEER[1-9][0-9]*$/ {
      at = index($0, "=")
      name = substr($0, 1, at - 1)
      sub(/ $/, "", name)
      text = substr($0, at + 1)
      sub(/^ /, "", text)
      value[section, name] = text
    }
    END {
      last = value["global", "max_index"]
      last = is_number(last, 0, 65535) ? last + 0 : 0
      for (i = 1; i <= last; ++i) {
        peer = "PEER" i
        if (value[peer, "allow_ip"] == "") continue
        if (value[peer, "allow_ip_mask"] == "") value[peer, "allow_ip_mask"] = "32"
        if (value[peer, "keepalive"] == "") value[peer, "keepalive"] = "0"
        bad = fault(peer)
        if (bad == "") show(peer)
        else print "#! " peer " is left out: bad " bad
      }
    }' "$PEER_FILE"
}

# For each peer with a name for an address: what is not found now can still call us.
find_endpoints() {
  local word key endpoint
  while read -r word key endpoint; do
    case $word in
      '#!') say "$key $endpoint" ;;
      '#@')
        WG_ENDPOINT_RESOLUTION_RETRIES=1 timeout "$WG_LOOKUP_SECONDS" wg set "$INTERFACE" peer \
          "$key" endpoint "$endpoint" 2>/dev/null ||
          say "the endpoint $endpoint is not found"
        ;;
    esac
  done
}

held_peers() { /usr/lib/fenro/fenro-hold peers; }

# Fails while a peer that is kept out is still there.
sync_peers() {
  local held live peers peer
  running || return 0
  { held=$(held_peers) && live=$(wg show "$INTERFACE" peers); } || return 1
  printf '%s\n' "$held" | while read -r peer; do
    [ -n "$peer" ] || continue
    case "
$live
" in
      *"
$peer
"*) wg set "$INTERFACE" peer "$peer" remove </dev/null || exit 1 ;;
    esac
  done || { say 'a peer that is kept out is still there' && return 1; }
  peers=$(peers "$live
$held") || return 1
  [ -n "$peers" ] || return 0
  printf '%s\n' "$peers" |
    timeout "$WG_LOOKUP_SECONDS" wg addconf "$INTERFACE" /dev/stdin 2>/dev/null ||
    { say 'wg refuses a peer' && return 1; }
  printf '%s\n' "$peers" | find_endpoints
}

bring_up() {
  local peers
  cause=daemon-ended failure=
  held=$(held_peers)
  peers=$(peers "$held") || return 1
  cause=kernel-lacks failure='this kernel has no WireGuard, and wireguard-go cannot make the interface'
  wireguard_add "$INTERFACE" || return 1
  cause=port-taken failure='wg refuses the configuration'
  printf '[Interface]\nPrivateKey = %s\nListenPort = %s\n%s\n' "$key" "$port" "$peers" |
    wireguard_set "$INTERFACE" ||
    return 1
  cause=address-conflict failure="$INTERFACE takes no address"
  wireguard_open "$INTERFACE" "$address" "$bits" || return 1
  printf '%s\n' "$peers" | find_endpoints
}

start() {
  read_settings
  stop
  bring_up || {
    stop
    [ "$cause" = port-taken ] &&
      fail_without_port $SECTION udp "$port" 'the WireGuard server cannot run'
    fail "$cause" "[$SECTION] the WireGuard server cannot run${failure:+: $failure}"
  }
  /usr/lib/fenro/fenro-hold watch 9>&- || say 'peers that are kept out stay so beyond their time'
  # A hold that has ended since the peers were read needs no watcher.
  [ -z "$held" ] || sync_peers || say 'peers whose time has ended may be missing'
  server_open wireguard "$pool" $((WG_MTU - TCP_IP_HEADERS)) "$outgoing" $ROUTE_PRIORITY
}

stop() {
  wireguard_remove "$INTERFACE" || die "$INTERFACE does not go away"
  server_close wireguard $ROUTE_PRIORITY
}

running() { wireguard_exists "$INTERFACE"; }

case "$#/${1-}" in
  1/peers)
    ! running ||
      wg show "$INTERFACE" dump | awk -F '\t' -v OFS='\t' 'NR > 1 { print $1, $3, $4, $5, $6, $7 }'
    ;;
  1/handshakes) wg show all latest-handshakes ;; # of the client tunnels as well
  1/sync_peers) with_lock wireguard sync_peers ;;
  *) server_script wireguard "$@" ;;
esac
