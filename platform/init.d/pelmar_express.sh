#!/bin/sh
# shellcheck shell=dash
# The agent of the overlay: the member's virtual address.
#
#   pelmar_express.sh start|stop|reset_virtual_interface
#
# shellcheck source=vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh
# shellcheck source=pelmar_lib.sh
. /usr/lib/fenro/pelmar_lib.sh

start() {
  virtual_interface_set && { [ -d "$RECORDS" ] || mkdir -p "$RECORDS"; } || die 'the virtual interface cannot be set up'
  agent_on "$EXPRESS_SWITCH"
}

stop() {
  agent_off "$EXPRESS_SWITCH"
  [ ! -e "/sys/class/net/$VIRTUAL_INTERFACE" ] || ip address flush dev "$VIRTUAL_INTERFACE"
}

reset_virtual_interface() { virtual_interface_set; }

case "$#/${1-}" in
  1/start | 1/stop | 1/reset_virtual_interface) with_lock pelmar_express "$1" ;;
  *) die 'usage: start|stop|reset_virtual_interface' ;;
esac
