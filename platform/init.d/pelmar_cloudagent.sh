#!/bin/sh
# shellcheck shell=dash
# The agent that keeps in touch with the cloud.
#
#   pelmar_cloudagent.sh start|stop|remove_dummy_interface|remove_pelmar_configs
#
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=pelmar_lib.sh
. /usr/lib/fenro/pelmar_lib.sh

start() {
  local key value
  for key in DEV_ID DEV_TOKEN; do
    value=$(/sbin/getcfg '' "$key" -f "$AGENT_CONF" 2>/dev/null) || value=
    case $value in '' | '""') die "no $key in $AGENT_CONF" ;; esac
  done
  agent_on "$CLOUDAGENT_SWITCH"
}

stop() { agent_off "$CLOUDAGENT_SWITCH"; }

pelmar_script "$@"
