#!/bin/sh
# shellcheck shell=dash
# The appliance's own traffic through a client tunnel.
#
#   vpn_gateway.sh start INTERFACE SNAT    SNAT 1: what leaves by the tunnel takes its address
#   vpn_gateway.sh wait INTERFACE SNAT     the same while nothing comes through it: its server's name is to be found
#   vpn_gateway.sh hold                    no tunnel: what would leave by one is refused
#   vpn_gateway.sh stop
#
# Networks that the host is part of, and every other route it knows but the default one, go before
# the tunnel. So does what the tunnels themselves send to their servers, and what answers somebody
# by an address of another interface. Behind the tunnel's route comes one that refuses: a tunnel
# that vanishes leaves no way out in clear. Tunnels carry no IPv6, so that is refused altogether but
# in the networks that the host knows.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=vpn_firewall.sh
. /usr/lib/fenro/vpn_firewall.sh
# shellcheck source=guard_lib.sh
. /usr/lib/fenro/guard_lib.sh
# shellcheck source=dns_lib.sh
. /usr/lib/fenro/dns_lib.sh

TABLE=3500 # above the tables of the tunnels themselves
# Two places for the rules: new ones stand before the old ones go, so that nothing leaves by the
# host's own route between.
PLACES='24000 24010'
# Priorities in a place
AROUND=0
KNOWN=1
THROUGH=2
MARK=$RUN_DIR/gateway

# rules_remove FAMILY PLACE: first what leads into the tunnel, last what leads around it.
rules_remove() {
  local offset priority
  for offset in $THROUGH $KNOWN $AROUND; do
    priority=$(($2 + offset))
    while [ -n "$(ip "$1" rule show priority "$priority" 2>/dev/null)" ] &&
      ip "$1" rule del priority "$priority"; do
      :
    done
  done
}

# Addresses of the servers of all client profiles, and those that the daemons say they are connected
# to. Those whose sockets bear the mark need none; pppd's and the IKE daemon's do.
tunnel_servers() {
  sed -n 's/^\(Domain IP\|Server Address\|Trusted IP\|Real Address\) = //p' \
    "$VPN_CONF" 2>/dev/null | tr ',' '\n' |
    sort -u | ipv4_alone
}

# Addresses of the interfaces that are no tunnels.
own_addresses() {
  ip -oneline -4 address show |
    awk '$2 !~ /^(lo|ppp|tun|dtun|wg)/ { sub("/.*", "", $4); print $4 }' | sort -u
}

# rules FAMILY PLACE start|wait|hold, for one run of ip: a host with many profiles has many.
rules() {
  local around=$(($2 + AROUND)) known=$(($2 + KNOWN)) through=$(($2 + THROUGH)) address
  printf 'rule add fwmark %s/%s lookup main priority %s\n' "$TUNNEL_MARK" "$TUNNEL_MARK" $around
  if [ "$1" = -4 ]; then
    {
      tunnel_servers
      [ "$3" = start ] || dns_host_servers | ipv4_alone
    } |
      while read -r address; do
        printf 'rule add to %s lookup main priority %s\n' "$address" $around
      done
    own_addresses |
      while read -r address; do
        printf 'rule add from %s lookup main priority %s\n' "$address" $around
      done
  fi
  printf 'rule add lookup main suppress_prefixlength 0 priority %s\n' $known
  printf 'rule add lookup %s priority %s\n' $TABLE $through
}

# rules_renew FAMILY start|wait|hold. The last rule of a place is added last: where it is there, all
# are.
rules_renew() {
  local new="${PLACES% *}" old="${PLACES#* }"
  if [ -n "$(ip "$1" rule show priority $((new + THROUGH)))" ]; then
    new=$old
    old=${PLACES% *}
  fi
  rules_remove "$1" "$new"
  # A server may stand in two profiles' lists, which makes one rule twice: "force" goes on behind
  # it.
  rules "$1" "$new" "$2" | ip "$1" -force -batch - 2>/dev/null
  [ -n "$(ip "$1" rule show priority $((new + THROUGH)))" ] && rules_remove "$1" "$old"
}

# The refusal is there before the rules that lead to it.
ways() {
  ip route replace unreachable default metric "$UNREACHABLE_METRIC" table $TABLE &&
    rules_renew -4 "$1" || return 1
  [ -e /proc/self/net/if_inet6 ] && [ "$(guard_get ipv6 block)" != pass ] || return 0
  ip -6 route replace unreachable default metric "$UNREACHABLE_METRIC" table $TABLE &&
    rules_renew -6 "$1"
}

# nat_rules SNAT INTERFACE...: connections from outside are noted as they come in, and answers to
# them, also those of machines behind this host, leave by the host's own routes.
nat_rules() {
  local snat="$1" interface
  shift
  printf 'chain incoming {\n type filter hook prerouting priority mangle;\n'
  printf 'ct direction reply ct mark & %s == %s meta mark set meta mark | %s\n' "$TUNNEL_MARK" \
    "$TUNNEL_MARK" "$TUNNEL_MARK"
  for interface in lo $CLIENT_INTERFACES; do
    [ "$interface" = lo ] || interface=$interface'*'
    printf 'iifname "%s" return\n' "$interface"
  done
  printf 'ct state new ct mark set ct mark | %s\n}\n' "$TUNNEL_MARK"
  printf 'chain answers {\n type route hook output priority mangle;\n'
  printf 'ct direction reply ct mark & %s == %s meta mark set meta mark | %s\n}\n' "$TUNNEL_MARK" \
    "$TUNNEL_MARK" "$TUNNEL_MARK"
  [ "$snat" = 1 ] || return 0
  printf 'chain outgoing {\n type nat hook postrouting priority srcnat;\n'
  for interface in "$@"; do printf 'oifname "%s" masquerade\n' "$interface"; done
  printf '}\n'
}

iptables_answers() {
  local bit="$TUNNEL_MARK/$TUNNEL_MARK" interface
  printf 'mangle PREROUTING -m conntrack --ctstate NEW -j CONNMARK --set-xmark %s\n' "$bit"
  for interface in lo $CLIENT_INTERFACES; do
    [ "$interface" = lo ] || interface=$interface+
    printf 'mangle PREROUTING -i %s -m conntrack --ctstate NEW -j CONNMARK --set-xmark 0/%s\n' \
      "$interface" "$TUNNEL_MARK"
  done
  for interface in PREROUTING OUTPUT; do
    printf 'mangle %s -m conntrack --ctdir REPLY -m connmark --mark %s -j MARK --set-xmark %s\n' \
      "$interface" "$bit" "$bit"
  done
}

# nat SNAT INTERFACE...: what leaves by any of these takes its address.
nat() {
  local snat="$1" interface
  case $(firewall_tool) in
    nft) nat_rules "$@" | nft_table fenro_gateway ;;
    iptables)
      shift
      iptables_answers | iptables_rules add || return 1
      for interface in "$@"; do
        iptables_source "$interface" |
          iptables_rules "$([ "$snat" = 1 ] && echo add || echo delete)" || return 1
      done
      ;;
    *) [ "$snat" = 0 ] ;;
  esac
}

iptables_source() { printf 'nat POSTROUTING -o %s -j MASQUERADE\n' "$1"; }

# nat_remove [INTERFACE]
nat_remove() {
  case $(firewall_tool) in
    nft) nft_no_table fenro_gateway ;;
    iptables)
      iptables_answers | iptables_rules delete
      [ -z "$1" ] || iptables_source "$1" | iptables_rules delete
      ;;
  esac
}

marked() { cat "$MARK" 2>/dev/null || :; }

# The filter of the guard is there before the routes change.
guard_first() {
  with_lock guard guard_renew || say 'the guard cannot be set: the old filter stays'
}

# begin start|wait INTERFACE SNAT
begin() {
  local kind="$1" old
  shift
  mkdir -p "$RUN_DIR"
  guard_first
  old=$(marked)
  [ "$old" != "$1" ] || old=
  write_file "$MARK" printf '%s\n' "$1" || die 'no mark can be written'
  # The translation is there before the first packet takes the new way, and stays until the last has
  # left by the old.
  nat "$2" "$1" ${old:+"$old"} ||
    say "$1: no source NAT, neither nftables nor iptables does it here"
  ways "$kind" || die "$1: the kernel refuses the rules"
  ip route replace default dev "$1" table $TABLE || die "$1: no route through it"
  if [ "$(firewall_tool)" = iptables ] && [ -n "$old" ]; then
    iptables_source "$old" | iptables_rules delete
  fi
  nat "$2" "$1" || die "$1: no source NAT, neither nftables nor iptables does it here"
  if [ "$kind" = start ]; then dns_call use "$1"; else dns_call restore; fi
}

hold() {
  mkdir -p "$RUN_DIR"
  guard_first
  [ -e "$MARK" ] || : >"$MARK" || die 'no mark can be written'
  ways hold || die 'the kernel refuses the rules: traffic may leave in clear'
  ip route del unicast default table $TABLE 2>/dev/null || :
  dns_call restore
}

stop() {
  local place family
  for family in -4 -6; do
    for place in $PLACES; do rules_remove $family "$place"; done
    ip $family route flush table $TABLE 2>/dev/null || :
  done
  nat_remove "$(marked)"
  rm -f "$MARK"
  dns_call restore
  guard_first
}

case "$#/${1-}" in
  3/start | 3/wait)
    vpn_unit "$2" >/dev/null || die "not a client interface: '$2'"
    is_number "$3" 0 1 || die "not 0 or 1: '$3'"
    with_lock gateway begin "$@"
    ;;
  1/hold | 1/stop) with_lock gateway "$1" ;;
  *) die 'usage: start|wait INTERFACE 0|1, hold, stop' ;;
esac
