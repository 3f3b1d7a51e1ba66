#!/bin/sh
# shellcheck shell=dash
# The appliance's own traffic through a client tunnel.
#
#   vpn_gateway.sh start INTERFACE SNAT    SNAT 1: what leaves by the tunnel takes its address
#   vpn_gateway.sh stop
#
# Networks that the host is part of, and every other route it knows but the default one, go before the tunnel. So does
# what the tunnels themselves send to their servers, and what answers somebody by an address of another interface.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh

TABLE=3500 # above the tables of the tunnels themselves
# Two places for the rules: new ones stand before the old ones go, so that nothing leaves by the host's own route between.
PLACES='24000 24010'
# Priorities in a place
AROUND=0
KNOWN=1
THROUGH=2
MARK=$RUN_DIR/gateway

# rules_remove PLACE: first what leads into the tunnel, last what leads around it.
rules_remove() {
  local offset
  for offset in $THROUGH $KNOWN $AROUND; do server_routes_remove $(($1 + offset)); done
}

# The servers of all client profiles; a name that was resolved stands beside it.
tunnel_servers() {
  sed -n 's/^\(Domain IP\|Server Address\) = //p' "$VPN_CONF" 2>/dev/null | sort -u | while read -r address; do
    if is_ipv4 "$address"; then printf '%s\n' "$address"; fi
  done
}

# Addresses of the interfaces that are no tunnels.
own_addresses() {
  ip -oneline -4 address show | awk '$2 !~ /^(lo|ppp|tun|dtun|wg)/ { sub("/.*", "", $4); print $4 }' | sort -u
}

# rules PLACE, for one run of ip: a host with many profiles has many.
rules() {
  local around=$(($1 + AROUND)) known=$(($1 + KNOWN)) through=$(($1 + THROUGH))
  tunnel_servers | while read -r address; do printf 'rule add to %s lookup main priority %s\n' "$address" $around; done
  own_addresses | while read -r address; do printf 'rule add from %s lookup main priority %s\n' "$address" $around; done
  printf 'rule add lookup main suppress_prefixlength 0 priority %s\n' $known
  printf 'rule add lookup %s priority %s\n' $TABLE $through
}

# The last rule of a place is added last: where it stands, all stand.
rules_renew() {
  local new="${PLACES% *}" old="${PLACES#* }"
  if [ -n "$(ip rule show priority $((new + THROUGH)))" ]; then
    new=$old
    old=${PLACES% *}
  fi
  rules_remove "$new"
  rules "$new" | ip -batch - && rules_remove "$old"
}

nat_rules() {
  printf 'chain outgoing {\n type nat hook postrouting priority srcnat;\n oifname "%s" masquerade\n}\n' "$1"
}

nat() {
  case $(firewall_tool) in
    nft) if [ "$2" = 1 ]; then nat_rules "$1" | nft_table fenro_gateway; else nft_no_table fenro_gateway; fi ;;
    iptables) printf 'nat POSTROUTING -o %s -j MASQUERADE\n' "$1" | iptables_rules "$([ "$2" = 1 ] && echo add || echo delete)" ;;
    *) [ "$2" = 0 ] ;;
  esac
}

start() {
  mkdir -p "$RUN_DIR"
  [ ! -s "$MARK" ] || [ "$(cat "$MARK")" = "$1" ] || nat "$(cat "$MARK")" 0 # iptables' rule names its interface
  write_file "$MARK" printf '%s\n' "$1" || die 'no mark can be written'
  rules_renew || die "$1: the kernel refuses the rules"
  ip route replace default dev "$1" table $TABLE || die "$1: no route through it"
  nat "$1" "$2" || die "$1: no source NAT, neither nftables nor iptables does it here"
}

stop() {
  local place
  for place in $PLACES; do rules_remove "$place"; done
  ip route flush table $TABLE 2>/dev/null || :
  [ ! -s "$MARK" ] || nat "$(cat "$MARK")" 0
  rm -f "$MARK"
}

case "$#/${1-}" in
  3/start)
    vpn_unit "$2" >/dev/null || die "not a client interface: '$2'"
    is_number "$3" 0 1 || die "not 0 or 1: '$3'"
    with_lock gateway start "$2" "$3"
    ;;
  1/stop) with_lock gateway stop ;;
  *) die 'usage: start INTERFACE 0|1, stop' ;;
esac
