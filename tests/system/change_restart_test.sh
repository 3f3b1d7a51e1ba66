#!/usr/bin/env bash
# change_restart_test.sh APPLIANCE STAGE: an appliance loses its power while a change waits for its
# confirmation. When it starts again the old settings are back before its server runs; a confirmed
# change stays.
# shellcheck disable=SC2016 # the texts run inside
set -uo pipefail
# shellcheck source=tests/support/restart.sh
. "$(dirname -- "${BASH_SOURCE[0]}")/../support/restart.sh"
POOL='pool() { getcfg OPENVPN "Client IP 1" -f /etc/config/vpn.conf; }'

# The last line is the power cut.
inside "$POOL"'
  /etc/init.d/vpn_common.sh setup_vpn_entrance
  ormelctl server set openvpn --pool 10.8.0.0 --yes && ormelctl server on openvpn ||
    fail "no server"
  code=$(ormelctl --confirm 600s --json server set openvpn --pool 10.7.0.0 --yes |
    sed -n "s/.*\"code\":\"\([A-Za-z]*\)\".*/\1/p")
  ormelctl confirm "$code" || fail "not confirmed"
  ormelctl --confirm 600s server set openvpn --pool 10.9.0.0 --yes || fail "not changed"
  ormelctl profile add pptp --name late --host 192.0.2.1 --user a --pass-file - \
    <<<secret || fail "no profile"
  [[ $(pool) == 10.9.0.2 ]] || fail "the pool is $(pool)"
  sync
  kill -KILL -1'
inside "$POOL"'
  comes_true grep -q "^ifconfig 10.7.0.1 " /etc/config/openvpn/server.conf ||
    fail "the server is not started with the old pool"
  comes_true pgrep -x openvpn || fail "the server does not run"
  [[ $(pool) == 10.7.0.2 ]] || fail "the pool is $(pool)"
  ormelctl pending | grep -q "^No change" || fail "$(ormelctl pending)"
  ! ormelctl profile show late 2>/dev/null || fail "a profile from after the beginning is there"
  ormelctl log events --json | grep -q "Not confirmed before the host was started again" || fail "no event"'
exit "$failures"
