#!/bin/sh
# shellcheck shell=dash
# The guard of the default gateway.
#
#   vpn_guard.sh apply     does what guard.conf says now
#   vpn_guard.sh pause     lets traffic out without a tunnel until the next start or setting
#   vpn_guard.sh boot      what the last run has left, before the network comes up
#   vpn_guard.sh watch     counts what leaves for the addresses of the test without a tunnel
#   vpn_guard.sh watched   the number of these packets; ends the count
#   vpn_guard.sh neighbour the address of a host in the local network that answers an echo
#   vpn_guard.sh report    what is known: "ipv4 301", "lan 192.168.77.0/24"; fails without a filter
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=guard_lib.sh
. /usr/lib/fenro/guard_lib.sh

WATCH_TABLE='inet fenro_guard_test'
TEST_ADDRESS=192.0.2.9 # of no host; ormelctl sends to it
TEST_ADDRESS6=2001:db8::9
NEIGHBOURS=8 # that are asked for an echo, at most

apply() {
  rm -f "$GUARD_PAUSED"
  [ "$(guard_mode)" = off ] || command -v nft >/dev/null ||
    die 'the guard needs nftables: apt install nftables'
  guard_renew || die 'the kernel refuses the filter; the old one stays'
}

pause() {
  mkdir -p "$RUN_DIR" && : >"$GUARD_PAUSED" || die 'the pause cannot be noted'
  nft delete table "$GUARD_TABLE" 2>/dev/null || :
}

boot() {
  [ -e "$GUARD_BOOT" ] || return 0
  nft -f "$GUARD_BOOT" ||
    die 'the filter of the guard cannot be loaded: traffic may leave without a tunnel'
}

report() {
  local network
  nft list counters table "$GUARD_TABLE" 2>/dev/null | awk '
    $1 == "counter" { name = $2 }
    $1 == "packets" { print name, $2; found = 1 }
    END { exit !found }' || exit 1
  for network in $(guard_lan -4) $(guard_lan -6); do printf 'lan %s\n' "$network"; done
}

# Behind the filter, and behind all that changes addresses.
watch_rules() {
  local prefix
  printf 'add table %s\ndelete table %s\ntable %s {\ncounter left {}\n' "$WATCH_TABLE" \
    "$WATCH_TABLE" "$WATCH_TABLE"
  printf 'chain out {\n type filter hook postrouting priority srcnat + 100;\n'
  for prefix in $CLIENT_INTERFACES; do printf 'oifname "%s*" accept\n' "$prefix"; done
  printf 'ip daddr %s counter name left\nip6 daddr %s counter name left\n}\n}\n' "$TEST_ADDRESS" \
    "$TEST_ADDRESS6"
}

watch() {
  watch_rules | nft -f - 2>/dev/null ||
    die 'packets cannot be counted: nftables is missing, or the kernel refuses'
}

watched() {
  nft list counters table "$WATCH_TABLE" 2>/dev/null |
    awk '$1 == "packets" { print $2; found = 1 } END { exit !found }' || exit 1
  nft delete table "$WATCH_TABLE" 2>/dev/null || :
}

# Routers first, then the latest peers. They are asked at the same time.
neighbour() {
  local address
  for address in $({ ip -4 route show default table main; ip -4 neighbour show; } 2>/dev/null |
    awk -v clients="$CLIENT_INTERFACES" -v most="$NEIGHBOURS" '
      BEGIN { gsub(" ", "|", clients); clients = "^(" clients ")" }
      {
        address = $1 == "default" ? "" : $1
        for (i = 1; i < NF; ++i) {
          if ($i == "via") address = $(i + 1)
          if ($i == "dev" && $(i + 1) ~ clients) next
        }
        if (address ~ /^[0-9.]+$/ && !seen[address]++ && ++count <= most) print address
      }'); do
    ! ping -n -c 1 -W 1 "$address" >/dev/null 2>&1 || printf '%s\n' "$address" &
  done
  wait
}

case "$#/${1-}" in
  1/neighbour | 1/watch | 1/watched) "$1" ;;
  1/apply | 1/pause | 1/boot) with_lock guard "$1" ;;
  1/report) report ;;
  *) die 'usage: apply, pause, boot, watch, watched, neighbour, report' ;;
esac
