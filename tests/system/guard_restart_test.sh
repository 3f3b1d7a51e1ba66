#!/usr/bin/env bash
# guard_restart_test.sh APPLIANCE STAGE: the guard of the default gateway holds from the first
# moment of a restarted appliance, before any daemon runs and while they start, and ends when it is
# turned off.
# shellcheck disable=SC2016 # the texts run inside
set -euo pipefail
STATE=$(mktemp -d)
trap 'rm -rf "$STATE"' EXIT
APPLIANCE=("$1" --stage "$2" --state "$STATE")
# What is sent to an address outside, by any socket and by one that is bound to eth0, and what of it
# arrives there.
COMMON='set -euo pipefail
lan() { nsenter --net=/run/netns/lan /usr/sbin/nft "$@"; }
until ping -c1 -W5 192.168.77.254 >/dev/null; do :; done
lan "add table netdev outside; add chain netdev outside in { type filter hook ingress device to-appliance priority 0; }
  add rule netdev outside in ip daddr 203.0.113.9 counter"
for _ in {1..20}; do
  (echo >/dev/udp/203.0.113.9/9) 2>/dev/null || :
  ping -c1 -w1 -I 192.168.77.1 203.0.113.9 >/dev/null 2>&1 & done
wait
left=$(lan list table netdev outside | sed -n "s/.*packets \([0-9]*\).*/\1/p")'

"${APPLIANCE[@]}" -- bash -euc 'mkdir -p /etc/config/ormel
  setcfg guard mode on -f /etc/config/ormel/guard.conf
  echo "{\"gw_setting\": {\"as_gw_en\": 1, \"gw1\":
    {\"type\": 1024, \"index\": 1, \"sname\": \"OPENVPN_CLIENT1\"},
    \"snat\": 1, \"failover_en\": 0}}" >/etc/config/vpn_options.conf
  /etc/init.d/vpn_guard.sh apply'
for daemons in --no-daemons ''; do
  "${APPLIANCE[@]}" ${daemons:+"$daemons"} -- bash -c "$COMMON"'
    [[ $left == 0 ]] || { echo "$left packets left"; exit 1; }
    /etc/init.d/vpn_guard.sh report | grep "^ipv4 [1-9]" >/dev/null || { echo "the guard has stopped nothing"; exit 1; }'
done
"${APPLIANCE[@]}" -- bash -euc 'setcfg guard mode off -f /etc/config/ormel/guard.conf; rm /etc/config/vpn_options.conf
  /etc/init.d/vpn_guard.sh apply'
"${APPLIANCE[@]}" --no-daemons -- bash -c "$COMMON"'
  [[ $left != 0 ]] || { echo "nothing leaves though the guard is off"; exit 1; }'
