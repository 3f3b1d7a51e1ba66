#!/bin/sh
# shellcheck shell=dash
# Client tunnels to Drovik servers: a morvic for each profile.
#
#   vpn_drovik_client.sh connect|disconnect|keep|forget INDEX
#
# morvic reads the section "DROVIK_CLIENTINDEX" of vpn.conf by itself, and runs drovik-client-up and
# drovik-client-down as the tunnel comes and goes. Programs that look for tunnels in /proc go by its
# name and that of its pid file.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=client_lib.sh
. /usr/lib/fenro/client_lib.sh
# shellcheck source=drovik_lib.sh
. /usr/lib/fenro/drovik_lib.sh

DAEMON=/usr/lib/fenro/morvic

connect() {
  disconnect
  client_known "$section" || die "[$section] no such profile"
  said=$("$AS_LOOKUP" "$DAEMON" "$section" "$interface" "$pid_file" </dev/null 2>&1 9>&-) ||
    fail_as_said "$section" "$said"
}

# The falling edge belongs to morvic; it is repeated here for one that was killed.
disconnect() {
  end_processes morvic "$pid_file" || die "[$section] the tunnel does not end"
  rm -f "$pid_file"
  client_down "$section"
}

running() { [ -n "$(pids_of morvic "$pid_file")" ]; }

start_action=connect
client_script DROVIK_CLIENT 'connect disconnect keep forget' "$@"
pid_file=$RUN_DIR/drovikclient$slot.pid
with_lock "drovikclient$slot" client_action "$1"
