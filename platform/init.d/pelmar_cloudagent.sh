#!/bin/sh
# shellcheck shell=dash
# The agent that keeps in touch with the cloud.
#
#   pelmar_cloudagent.sh start|stop|remove_dummy_interface|remove_pelmar_configs
#
# The last two take away what a membership has left: the virtual interface, and the files of the device.
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=pelmar_lib.sh
. /usr/lib/fenro/pelmar_lib.sh

LINK=etc/cloudagent/cloudagent.cfg # to AGENT_CONF, below the application's folder

start() {
  local key value
  for key in DEV_ID DEV_TOKEN; do
    value=$(/sbin/getcfg '' "$key" -f "$AGENT_CONF" 2>/dev/null) || value=
    case $value in '' | '""') die "no $key in $AGENT_CONF" ;; esac
  done
  agent_on "$CLOUDAGENT_SWITCH"
}

stop() { agent_off "$CLOUDAGENT_SWITCH"; }

remove_dummy_interface() { virtual_interface_remove; }

# The login of the user's account is not the device's, and stays.
remove_pelmar_configs() {
  local folder
  folder=$(/sbin/getcfg ORMEL Install_Path -f /etc/config/pakrix.conf 2>/dev/null) || folder=
  case $folder in /*) rm -f "$folder/$LINK" || return 1 ;; esac
  rm -f "$AGENT_CONF" "$PELMAR_STATE/pelmar_token.json" "$RECORDS/supernode.json"
}

case "$#/${1-}" in
  1/start | 1/stop | 1/remove_dummy_interface | 1/remove_pelmar_configs) with_lock pelmar_cloudagent "$1" ;;
  *) die 'usage: start|stop|remove_dummy_interface|remove_pelmar_configs' ;;
esac
