# shellcheck shell=dash
# What the WireGuard scripts share: interfaces of the kernel or of wireguard-go, and checks of
# values. Keys go to the tool by its standard input and are in no argument, environment or file of
# ours. Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader

WG_MTU=1420          # leaves room for the tunnel's own headers on an Ethernet path
WG_LOOKUP_SECONDS=10 # that the name of a peer may take

# wireguard_add INTERFACE: by the kernel if that has WireGuard, else by the program.
wireguard_add() {
  ip link add dev "$1" type wireguard 2>/dev/null && return 0
  command -v wireguard-go >/dev/null || {
    say 'this kernel has no WireGuard, and wireguard-go is not installed'
    return 1
  }
  wireguard-go "$1" </dev/null >/dev/null 2>&1 9>&- || {
    say "this kernel has no WireGuard, and wireguard-go cannot make $1: it needs /dev/net/tun"
    return 1
  }
}

# wireguard_remove INTERFACE. The program takes its interface with it.
wireguard_remove() {
  end_processes wireguard-go "$1" && { ! wireguard_exists "$1" || ip link delete dev "$1"; }
}

wireguard_exists() { [ -e "/sys/class/net/$1" ]; }

# wireguard_open INTERFACE ADDRESS BITS
wireguard_open() {
  ip address add "$2/$3" dev "$1" && ip link set dev "$1" mtu "$WG_MTU" up
}

# wireguard_set INTERFACE: the configuration on standard input becomes that of the interface. The
# tool's own words are dropped, since they may hold a key.
wireguard_set() { timeout "$WG_LOOKUP_SECONDS" wg setconf "$1" /dev/stdin 2>/dev/null; }

# The text of 32 bytes in base64, as the tool takes it.
is_wireguard_key() {
  case $1 in *[!A-Za-z0-9+/=]* | *[!=]=*?) return 1 ;; *[AEIMQUYcgkosw048]=) ;; *) return 1 ;; esac
  [ ${#1} -eq 44 ]
}

# Sets endpoint_host and endpoint_port of HOST:PORT. An address of IPv6 is in brackets there.
split_endpoint() {
  case $1 in *:*) ;; *) return 1 ;; esac
  endpoint_port=${1##*:} endpoint_host=${1%:*}
  is_number "$endpoint_port" 1 65535 || return 1
  case $endpoint_host in
    \[*\]) case ${endpoint_host#\[} in *[!0-9A-Fa-f:.\]]* | *\]?*) return 1 ;; esac ;;
    *) is_ipv4 "$endpoint_host" || is_hostname "$endpoint_host" ;;
  esac
}
