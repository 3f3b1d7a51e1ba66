# shellcheck shell=dash
# What the L2TP scripts share: the kernel and xl2tpd. Read by "." behind vpn_lib.sh and ppp_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader
# shellcheck source=ipsec_lib.sh
. /usr/lib/fenro/ipsec_lib.sh

L2TP_PORT=1701

# Fails with "missing" telling all that this kernel lacks.
l2tp_available() {
  missing=
  ppp_available || missing=PPP
  esp_available || missing=${missing:+$missing and no }ESP
  [ -z "$missing" ]
}

# l2tp_launch CONF NAME [COMMAND...]: xl2tpd, run by COMMAND if that is given. It goes to the
# background by itself before it has its port, so its own status says little.
l2tp_launch() {
  local conf="$1" name="$2" rounds=5
  shift 2
  "$@" /usr/sbin/xl2tpd -c "$conf" -p "$RUN_DIR/$name.pid" -C "$RUN_DIR/$name.control" </dev/null \
    >/dev/null 2>&1 9>&- || return 1
  while [ "$rounds" -gt 0 ]; do
    sleep 0.2
    [ -n "$(pids_of xl2tpd "$conf")" ] || return 1
    rounds=$((rounds - 1))
  done
}

# l2tp_client_view COMMAND...: xl2tpd knows one place for pppd and runs it under that name. So it
# gets its own view, where that place has a script that gives pppd the name of a client tunnel.
l2tp_client_view() {
  : >>"$RUN_DIR/pppd-l2tp"
  # shellcheck disable=SC2016 # the shell below expands them
  unshare --mount /bin/sh -c 'mount --bind /usr/sbin/pppd "$1" && mount --bind /usr/lib/fenro/l2tp-pppd /usr/sbin/pppd &&
    shift && exec "$@"' sh "$RUN_DIR/pppd-l2tp" "$@"
}

guard_nft_rules() {
  printf 'chain guard {\n type filter hook input priority filter;\n udp dport %s meta ipsec missing drop\n}\n' "$L2TP_PORT"
}

guard_iptables_rules() {
  printf 'filter INPUT -p udp --dport %s -m policy --dir in --pol none -j DROP\n' "$L2TP_PORT"
}

# l2tp_guard add|delete: the server's xl2tpd is reached by IPsec alone. Read vpn_firewall.sh for
# it.
l2tp_guard() {
  case $(firewall_tool)/$1 in
    nft/add) guard_nft_rules | nft_table fenro_l2tp_guard ;;
    nft/delete) nft_no_table fenro_l2tp_guard ;;
    iptables/*) guard_iptables_rules | iptables_rules "$1" ;;
    *) return 1 ;;
  esac
}
