#!/bin/sh
# shellcheck shell=dash
# The agent of the overlay: the member's virtual address.
#
#   pelmar_express.sh start|stop|reset_virtual_interface|remove_dummy_interface|remove_pelmar_configs
#
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=pelmar_lib.sh
. /usr/lib/fenro/pelmar_lib.sh

start() {
  virtual_interface_set && { [ -d "$RECORDS" ] || mkdir -p "$RECORDS"; } ||
    die 'the virtual interface cannot be set up'
  agent_on "$EXPRESS_SWITCH"
}

stop() {
  agent_off "$EXPRESS_SWITCH"
  [ ! -e "/sys/class/net/$VIRTUAL_INTERFACE" ] || ip address flush dev "$VIRTUAL_INTERFACE"
}

case "$#/${1-}" in
  1/reset_virtual_interface) virtual_interface_set ;;
  *) pelmar_script "$@" ;;
esac
