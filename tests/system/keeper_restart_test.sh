#!/usr/bin/env bash
# keeper_restart_test.sh APPLIANCE STAGE: an appliance with kept state loses its power. When it
# starts again, nothing looks connected that is not, what was on comes up with its rules, and what
# was off stays off. Access that has ended meanwhile is revoked before anything is started.
# shellcheck disable=SC2016 # the texts run inside
set -uo pipefail
# shellcheck source=tests/support/restart.sh
. "$(dirname -- "${BASH_SOURCE[0]}")/../support/restart.sh"
ADDRESS='address() { getcfg "$1" LocalIP -f /etc/config/vpn.conf | grep .; }'

# Both ends of the Drovik tunnel are this host. The last line is the power cut: no hook has a
# chance.
inside "$ADDRESS"'
  /etc/init.d/vpn_common.sh setup_vpn_entrance
  echo guest:0:0:0:0:1 >/etc/config/vpn_user_ex.conf
  ormel --type=SDROVIK --modify=0 --enable=TRUE --psk=key --port=4443 >/dev/null
  ormel --type=DROVIK --add --name=office --host=192.168.77.1 --port=4443 --user=guest --psk=key \
    --pass="$(cat /var/lib/appliance/password.guest)" >/dev/null
  ormel --type=PPTP --add --name=idle --host=192.0.2.1 --user=a --pass=x >/dev/null || fail "the second profile is refused"
  ormel --type=DROVIK --connect=1 >/dev/null
  comes_true address DROVIK_CLIENT1 || fail "the tunnel does not come up"
  grep -q . /var/log/ormel_online_users || fail "no session"
  ormelctl user grant admin openvpn --until 4s >/dev/null || fail "access for a time is refused"
  grep -q "^admin:0:1:0:0:0" /etc/config/vpn_user_ex.conf || fail "no right"
  sync
  kill -KILL -1'
sleep 4 # an end of access while the host is off
inside "$ADDRESS"'
  grep -q "^admin:0:0:0:0:0" /etc/config/vpn_user_ex.conf || fail "access has not ended"
  grep -q "^LocalIP = ." /etc/config/vpn.conf && ! pgrep -x morvic >/dev/null && fail "it looks connected without a tunnel"
  comes_true pgrep -x morvid || fail "the server that was on does not run"
  comes_true address DROVIK_CLIENT1 || fail "the profile that was on is not connected"
  comes_true nft list table ip fenro_dtunc2501 || fail "no NAT of the tunnel"
  comes_true nft list table ip fenro_ppp1001 || fail "no NAT of the profile that is off"
  [[ $(pgrep -xc morvic) == 1 ]] || fail "a profile that was off is connected"
  [[ $(wc -l </var/log/ormel_online_users) == 1 ]] || fail "sessions: $(cat /var/log/ormel_online_users)"'
exit "$failures"
