#!/bin/sh
# shellcheck shell=dash
# The host's name servers while a tunnel is the default gateway.
#
#   vpn_names.sh use INTERFACE    those that the profile of the tunnel brings
#   vpn_names.sh restore          the host's own
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=dns_lib.sh
. /usr/lib/fenro/dns_lib.sh

# section_of INTERFACE
section_of() {
  local row prefix number
  for row in $CLIENT_TUNNELS; do
    prefix=${row#*:}
    number=${1#"${prefix%:*}"}
    is_number "$number" $((${row##*:} + 1)) $((${row##*:} + MAX_SLOT)) || continue
    [ "${prefix%:*}$number" = "$1" ] || continue
    printf '%s%s\n' "${row%%:*}" $((number - ${row##*:}))
    return 0
  done
  return 1
}

use() {
  local section server
  section=$(section_of "$1") || die "not a client interface: '$1'"
  server=$(vpn_get "$section" 'DNS Server')
  if is_ipv4 "$server" &&
    [ "$server" != 0.0.0.0 ]; then dns_use "$1" "$server"; else dns_use "$1"; fi ||
    die "the name server of $1 cannot be used: the host's own ones stay"
}

restore() {
  dns_restore || die "the host's own name servers cannot be put back: they are in $DNS_HOST"
}

case "$#/${1-}" in
  2/use | 1/restore) with_lock names "$@" ;;
  *) die 'usage: use INTERFACE, restore' ;;
esac
