# shellcheck shell=dash
# The guard of the default gateway: a filter that lets nothing out but by a client tunnel. Routes
# hold traffic back too, but a socket that is bound to an address of the host goes around them, and
# they are missing before networkd runs. Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034,SC2154 # some names are for the reader, others from vpn_lib.sh

GUARD_CONF=/etc/config/ormel/guard.conf
GUARD_BOOT=/var/lib/fenro/guard.nft # what is loaded before the network comes up
# There until the next start of the host, or until the guard is set again.
GUARD_PAUSED=$RUN_DIR/guard.paused
GATEWAY_POLICY=/etc/config/vpn_options.conf
GUARD_TABLE='inet fenro_guard'
LOOKUP_GROUP=fenro-resolve          # of what looks up the names of servers
LAN_BITS=8                          # networks larger than this are the rest of the world
CLIENT_INTERFACES='ppp1 tun2 dtunc wgc' # how interfaces of client tunnels begin

guard_get() { /sbin/getcfg guard "$1" -f "$GUARD_CONF" -d "$2" 2>/dev/null || printf '%s\n' "$2"; }

# off, on or strict. A file that is there and says nothing usable counts as on: it holds rather than
# leaks.
guard_mode() {
  local mode
  [ -e "$GUARD_CONF" ] && [ ! -e "$GUARD_PAUSED" ] || {
    printf 'off\n'
    return
  }
  mode=$(guard_get mode on)
  case $mode in off | on | strict) ;; *) mode=on ;; esac
  printf '%s\n' "$mode"
}

# Whether the filter is to stand. A policy that cannot be read counts as one that names a gateway.
guard_wanted() {
  case $(guard_mode) in
    strict) return 0 ;;
    on) [ -e "$GATEWAY_POLICY" ] && ! grep -Eq '"as_gw_en": *0' "$GATEWAY_POLICY" ;;
    *) return 1 ;;
  esac
}

# guard_lan FAMILY: the networks that the host has a route to, other than by a client tunnel.
guard_lan() {
  ip -oneline "$1" route show table main 2>/dev/null |
    awk -v least="$LAN_BITS" -v clients="$CLIENT_INTERFACES" '
    BEGIN { gsub(" ", "|", clients); clients = "^(" clients ")" }
    $1 !~ /^[0-9a-f.:]+(\/[0-9]+)?$/ { next }
    {
      for (i = 2; i < NF; ++i) if ($i == "dev" && $(i + 1) ~ clients) next
      split($1, part, "/")
      if (part[2] == "" || part[2] >= least) print $1
    }' | sort -u
}

# The lines that are IPv4 addresses; one program for all, as a host with many profiles has many.
ipv4_alone() {
  awk -F . '
    NF != 4 || /[^0-9.]/ || /(^|\.)0[0-9]/ { next }
    { for (i = 1; i <= 4; ++i) if ($i == "" || $i > 255) next; print }'
}

# Servers of profiles whose packets bear no mark: pppd and the IKE daemon know none.
guard_servers() {
  sed -n '/^\[\(PPTP\|L2TP\)_CLIENT/,/^\[/s/^\(Domain IP\|Server Address\|Real Address\) = //p' \
    "$VPN_CONF" 2>/dev/null |
    tr ',' '\n' | sort -u | ipv4_alone
}

lookup_group() { getent group "$LOOKUP_GROUP" | cut -d: -f3; }

# The table's contents, one judgement for what this host sends and for what it forwards. Counters
# stay as they are.
guard_rules() {
  local prefix network servers group
  printf 'add table %s\nflush table %s\n' "$GUARD_TABLE" "$GUARD_TABLE"
  printf 'table %s {\ncounter ipv4 {}\ncounter ipv6 {}\ncounter dns {}\n' "$GUARD_TABLE"
  servers=$(guard_servers | paste -sd,)
  printf 'set servers {\n type ipv4_addr\n%s}\n' "${servers:+ elements = { $servers \}
}"
  printf 'chain judge {\noifname "lo" accept\n'
  for prefix in $CLIENT_INTERFACES; do printf 'oifname "%s*" accept\n' "$prefix"; done
  cat <<RULES
meta mark & $TUNNEL_MARK == $TUNNEL_MARK accept
ct direction reply accept
udp dport { 67, 68, 546, 547 } accept
ip protocol igmp accept
icmpv6 type { nd-router-solicit, nd-router-advert, nd-neighbor-solicit, nd-neighbor-advert,
  mld-listener-report, mld2-listener-report } accept
ip daddr @servers tcp dport 1723 accept
ip daddr @servers udp dport { 500, 1701, 4500 } accept
ip daddr @servers ip protocol { gre, esp } accept
RULES
  group=$(lookup_group)
  [ -z "$group" ] ||
    printf 'meta skgid %s meta l4proto { tcp, udp } th dport { 53, 853 } accept\n' "$group"
  [ "$(guard_get dns tunnel)" = any ] ||
    printf 'meta l4proto { tcp, udp } th dport { 53, 853 } counter name dns drop\n'
  if [ "$(guard_get lan 1)" != 0 ]; then
    printf 'ip daddr { 224.0.0.0/24, 239.0.0.0/8, 255.255.255.255 } accept\nip6 daddr { fe80::/10, ff02::/16 } accept\n'
    for network in $(guard_lan -4); do printf 'ip daddr %s accept\n' "$network"; done
    for network in $(guard_lan -6); do printf 'ip6 daddr %s accept\n' "$network"; done
  fi
  [ "$(guard_get ipv6 block)" != pass ] || printf 'meta nfproto ipv6 accept\n'
  printf 'meta nfproto ipv6 counter name ipv6 drop\ncounter name ipv4 drop\n}\n'
  printf 'chain output {\n type filter hook output priority filter;\n jump judge\n}\n'
  printf 'chain forward {\n type filter hook forward priority filter;\n jump judge\n}\n}\n'
}

# Sets the filter in one step, and keeps it for the next start of the host. A filter that cannot be
# set leaves the old one.
guard_set() {
  local rules
  mkdir -p "${GUARD_BOOT%/*}"
  rules=$(guard_rules)
  printf '%s\n' "$rules" | nft -f - 2>/dev/null && write_file "$GUARD_BOOT" printf '%s\n' "$rules"
}

guard_remove() {
  rm -f "$GUARD_BOOT"
  ! command -v nft >/dev/null ||
    printf 'add table %s\ndelete table %s\n' "$GUARD_TABLE" "$GUARD_TABLE" | nft -f - 2>/dev/null
}

# Brings the filter in line with the settings and with the networks of now.
guard_renew() {
  [ ! -e "$GUARD_PAUSED" ] || return 0
  if guard_wanted; then
    guard_set
  elif [ -e "$GUARD_BOOT" ] || [ -e "$GUARD_CONF" ]; then
    guard_remove
  fi
}

# guard_admit ADDRESS: a server that was looked up a moment ago.
guard_admit() {
  [ -e "$GUARD_BOOT" ] && is_ipv4 "$1" || return 0
  nft add element "$GUARD_TABLE" servers "{ $1 }" 2>/dev/null || :
}
