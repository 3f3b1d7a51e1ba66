# shellcheck shell=dash
# Routing and NAT of tunnels, with nftables or, where that is missing, iptables. Everything here can
# be done twice. Read by "." behind vpn_lib.sh.

UNREACHABLE_METRIC=4278198272 # worse than any route of a tunnel
RULE_PRIORITY=20000           # plus the unit

# vpn_unit INTERFACE: the unit of a client tunnel's interface, which is also the number of its
# routing table.
vpn_unit() {
  local row prefix number
  for row in $CLIENT_TUNNELS; do
    row=${row#*:}
    prefix=${row%:*}
    number=${1#"$prefix"}
    is_number "$number" $((${row#*:} + 1)) $((${row#*:} + MAX_SLOT)) || continue
    [ "$1" = "$prefix$number" ] || continue
    printf '%s\n' "$number"
    return 0
  done
  return 1
}

firewall_tool() {
  if command -v nft >/dev/null; then
    printf 'nft\n'
  elif command -v iptables >/dev/null; then
    printf 'iptables\n'
  else
    return 1
  fi
}

# nft_table NAME: the rules on standard input become the table's only contents, in one step.
nft_table() {
  {
    printf 'add table ip %s\ndelete table ip %s\ntable ip %s {\n' "$1" "$1" "$1"
    cat
    printf '}\n'
  } | nft -f - 2>/dev/null
}

nft_no_table() {
  printf 'add table ip %s\ndelete table ip %s\n' "$1" "$1" | nft -f - 2>/dev/null
}

# iptables_rules add|delete: lines of a table, a chain and a rule on standard input.
iptables_rules() {
  local table chain rule failed=0
  while read -r table chain rule; do
    # shellcheck disable=SC2086 # the rules below hold plain words only
    set -- "$1" -t "$table" "$chain" $rule
    iptables_rule "$@" || failed=1
  done
  return "$failed"
}

# iptables_rule add|delete -t TABLE CHAIN RULE...
iptables_rule() {
  local action="$1" table="$3" chain="$4"
  shift 4
  if [ "$action" = add ]; then
    iptables -w -t "$table" -C "$chain" "$@" 2>/dev/null ||
      iptables -w -t "$table" -A "$chain" "$@" 2>/dev/null
  else
    while iptables -w -t "$table" -D "$chain" "$@" 2>/dev/null; do :; done
  fi
}

client_nft_rules() {
  cat <<RULES
  chain outgoing {
    type nat hook postrouting priority srcnat;
    oifname "$1" masquerade
  }
  chain through {
    type filter hook forward priority filter;
    oifname "$1" tcp flags & (syn | rst) == syn tcp option maxseg size set rt mtu
    oifname "$1" accept
    iifname "$1" ct state established,related accept
  }
RULES
}

client_iptables_rules() {
  cat <<RULES
nat POSTROUTING -o $1 -j MASQUERADE
mangle FORWARD -o $1 -p tcp --tcp-flags SYN,RST SYN -j TCPMSS --clamp-mss-to-pmtu
filter FORWARD -o $1 -j ACCEPT
filter FORWARD -i $1 -m conntrack --ctstate ESTABLISHED,RELATED -j ACCEPT
RULES
}

# The tunnel's own routing table, for sockets bound to it. Until the tunnel is up nothing leaves by
# another way.
client_routes_add() {
  local unit="$1" priority=$((RULE_PRIORITY + $1))
  ip route replace unreachable default metric "$UNREACHABLE_METRIC" table "$unit" || return 1
  [ -n "$(ip rule show priority "$priority")" ] ||
    ip rule add oif "$2" lookup "$unit" priority "$priority"
}

client_routes_remove() {
  local priority=$((RULE_PRIORITY + $1))
  while [ -n "$(ip rule show priority "$priority")" ] && ip rule del priority "$priority"; do
    :
  done
  ip route flush table "$1" 2>/dev/null || :
}

client_nat_add() {
  case $(firewall_tool) in
    nft) client_nft_rules "$1" | nft_table "fenro_$1" ;;
    iptables) client_iptables_rules "$1" | iptables_rules add ;;
    *) return 1 ;;
  esac
}

client_nat_remove() {
  case $(firewall_tool) in
    nft) nft_no_table "fenro_$1" ;;
    iptables) client_iptables_rules "$1" | iptables_rules delete ;;
    *) return 0 ;; # then nothing was added either
  esac
}

# server_nft_rules POOL MSS INTERFACE|all|none
server_nft_rules() {
  local only=
  case $3 in
    all) ;;
    none) only='drop' ;;
    *) only="oifname != \"$3\" drop" ;;
  esac
  cat <<RULES
  chain outgoing {
    type nat hook postrouting priority srcnat;
    ip saddr $1 ip daddr != $1 masquerade
  }
  chain through {
    type filter hook forward priority filter;
    ip saddr $1 tcp flags & (syn | rst) == syn tcp option maxseg size > $2 \
      tcp option maxseg size set $2
    ip daddr $1 tcp flags & (syn | rst) == syn tcp option maxseg size > $2 \
      tcp option maxseg size set $2
    ${only:+ip saddr $1 ip daddr != $1 $only}
    ip saddr $1 accept
    ip daddr $1 accept
  }
RULES
}

server_iptables_rules() {
  cat <<RULES
nat POSTROUTING -s $1 ! -d $1 -j MASQUERADE
mangle FORWARD -s $1 -p tcp --tcp-flags SYN,RST SYN -j TCPMSS --set-mss $2
mangle FORWARD -d $1 -p tcp --tcp-flags SYN,RST SYN -j TCPMSS --set-mss $2
RULES
  case $3 in
    all) ;;
    none) printf 'filter FORWARD -s %s ! -d %s -j DROP\n' "$1" "$1" ;;
    *) printf 'filter FORWARD -s %s ! -d %s ! -o %s -j DROP\n' "$1" "$1" "$3" ;;
  esac
  printf 'filter FORWARD -s %s -j ACCEPT\nfilter FORWARD -d %s -j ACCEPT\n' "$1" "$1"
}

# server_nat_add NAME POOL MSS INTERFACE: the server's clients reach the rest of the network by
# INTERFACE alone. The rules are kept beside the run, since iptables can only delete what it is
# shown again.
server_nat_add() {
  server_nat_remove "$1"
  case $(firewall_tool) in
    nft) server_nft_rules "$2" "$3" "$4" | nft_table "fenro_$1" ;;
    iptables)
      mkdir -p "$RUN_DIR" && write_file "$RUN_DIR/$1.rules" server_iptables_rules "$2" "$3" "$4" &&
        iptables_rules add <"$RUN_DIR/$1.rules"
      ;;
    *) return 1 ;;
  esac
}

server_nat_remove() {
  case $(firewall_tool) in
    nft) nft_no_table "fenro_$1" ;;
    iptables)
      [ -e "$RUN_DIR/$1.rules" ] || return 0
      iptables_rules delete <"$RUN_DIR/$1.rules"
      rm -f "$RUN_DIR/$1.rules"
      ;;
  esac
  return 0
}

# server_routes_add PRIORITY POOL INTERFACE: clients sent out by a tunnel take the tunnel's table,
# but for what goes to clients; by any other interface, the main table is right.
server_routes_add() {
  local unit
  server_routes_remove "$1"
  unit=$(vpn_unit "$3") || return 0
  ip rule add to "$2" lookup main priority "$1" &&
    ip rule add from "$2" lookup "$unit" priority "$1"
}

server_routes_remove() {
  while [ -n "$(ip rule show priority "$1")" ] && ip rule del priority "$1"; do :; done
}

# Of the way in as a whole: forwarding, and that nobody but root gives the OpenVPN daemon orders.
MANAGEMENT_PORT=7505

entrance_nft_rules() {
  printf 'chain orders {\n type filter hook output priority filter;\n oifname "lo" tcp dport %s meta skuid != 0 reject\n}\n' "$MANAGEMENT_PORT"
}

entrance_iptables_rules() {
  printf 'filter OUTPUT -o lo -p tcp --dport %s -m owner ! --uid-owner 0 -j REJECT\n' \
    "$MANAGEMENT_PORT"
}

entrance_rules() {
  case $(firewall_tool) in
    nft) entrance_nft_rules | nft_table fenro_entrance ;;
    iptables) entrance_iptables_rules | iptables_rules add ;;
    *) return 1 ;;
  esac
}

# The program reads what is left here before it turns on anything.
entrance_open() {
  local done=TRUE
  entrance_rules || done=FALSE
  printf '1\n' 2>/dev/null >/proc/sys/net/ipv4/ip_forward || done=FALSE
  vpn_set global setup_vpn_entrance_status "$done"
  [ "$done" = TRUE ] || say 'the entrance could not be set up: no firewall, or no forwarding'
}

# Another firewall of the host may drop what is forwarded, as those of Docker and ufw do. An accept
# in a table of ours does not help there, one at the head of theirs does.
forward_accept() {
  local side
  if command -v iptables >/dev/null &&
    iptables -w -S FORWARD 2>/dev/null | grep -q '^-P FORWARD DROP'; then
    mkdir -p "$RUN_DIR" && write_file "$RUN_DIR/$1.forward" printf '%s\n' "$2" || return 1
    for side in -s -d; do
      iptables -w -C FORWARD $side "$2" -j ACCEPT 2>/dev/null ||
        iptables -w -I FORWARD 1 $side "$2" -j ACCEPT 2>/dev/null || return 1
    done
  fi
  [ -z "$(forward_droppers)" ]
}

# The chains that drop by default and are neither ours nor those of iptables, which forward_accept
# has dealt with.
forward_droppers() {
  ! command -v nft >/dev/null || nft list chains 2>/dev/null | awk '
    $1 == "table" { table = $2 " " $3 }
    $1 == "chain" { chain = $2 }
    /hook forward/ && /policy drop/ && table !~ / fenro_/ &&
      table " " chain != "ip filter FORWARD" && table !~ /^ip6 / {
      print table, chain
    }'
}

forward_forget() {
  local pool side
  pool=$(cat "$RUN_DIR/$1.forward" 2>/dev/null) && [ -n "$pool" ] || return 0
  for side in -s -d; do
    while iptables -w -D FORWARD $side "$pool" -j ACCEPT 2>/dev/null; do :; done
  done
  rm -f "$RUN_DIR/$1.forward"
}

# server_open NAME POOL MSS INTERFACE PRIORITY. Where the rules can't be had, clients reach the
# appliance and nothing behind it; the program tells so when it finds the word here, under the
# section of the server.
server_open() {
  local done=TRUE
  entrance_open
  if ! server_nat_add "$1" "$2" "$3" "$4" || ! server_routes_add "$5" "$2" "$4"; then
    done=FALSE
    say 'no NAT rules: clients reach this host only'
  elif ! forward_accept "$1" "$2"; then
    done=FALSE
    say "another firewall drops what clients send to hosts behind this one: accept $2 in its chain ($(forward_droppers | paste -sd,))"
  fi
  vpn_set "$SECTION" "${SECTION}_iptables_rules" "$done"
}

server_close() {
  server_nat_remove "$1"
  forward_forget "$1"
  server_routes_remove "$2"
}
