# shellcheck shell=dash
# What the scripts of a membership of the SD-WAN share. Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader

PELMAR_CONF=/etc/config/ormel/pelmar.conf
AGENT_CONF=/etc/config/ormel/cloudagent.cfg
AGENT_LINK=etc/cloudagent/cloudagent.cfg # to it, below the application's folder
PELMAR_STATE=/var/lib/fenro/pelmar # of pelmar-agentd, which looks for these two switches in there
CLOUDAGENT_SWITCH=$PELMAR_STATE/cloudagent.on
EXPRESS_SWITCH=$PELMAR_STATE/express.on
RECORDS=/var/run/cms_config # where records of super nodes are left
VIRTUAL_INTERFACE=pelmar0

# The agents are one daemon, which the host starts: a switch tells it to be one of them.
agent_on() {
  mibsh pelmar_expressd.GetCloudStatus >/dev/null 2>&1 || die 'pelmar-agentd does not run'
  { [ -d "$PELMAR_STATE" ] || mkdir -p "$PELMAR_STATE"; } && : >"$1" ||
    die 'the agent cannot be switched on'
}

agent_off() { rm -f "$1" || die 'the agent cannot be switched off'; }

# An interface that leads nowhere by itself: programs find the member's address on it. A kernel may
# lack the first kind.
virtual_interface_add() {
  [ ! -e "/sys/class/net/$VIRTUAL_INTERFACE" ] || return 0
  ip link add dev "$VIRTUAL_INTERFACE" type dummy 2>/dev/null ||
    ip link add dev "$VIRTUAL_INTERFACE" type bridge
}

# Gives it the address of the settings and no other. Under its own lock, as the daemon has it
# done while a script may be waiting for the daemon.
virtual_interface_set() { with_lock pelmar_interface set_virtual_interface; }

set_virtual_interface() {
  local address
  address=$(/sbin/getcfg 'Join Pelmar' virtual_ip -f "$PELMAR_CONF" 2>/dev/null) &&
    is_ipv4 "$address" || {
    say 'no usable virtual address'
    return 1
  }
  virtual_interface_add && ip address flush dev "$VIRTUAL_INTERFACE" && ip -batch - <<TEXT
address add $address/32 dev $VIRTUAL_INTERFACE
link set dev $VIRTUAL_INTERFACE up
TEXT
}

# What a membership has left, for whichever agent is asked.
remove_dummy_interface() {
  [ ! -e "/sys/class/net/$VIRTUAL_INTERFACE" ] || ip link delete dev "$VIRTUAL_INTERFACE"
}

# The login of the user's account is not the device's, and stays.
remove_pelmar_configs() {
  local folder
  folder=$(/sbin/getcfg ORMEL Install_Path -f /etc/config/pakrix.conf 2>/dev/null) || folder=
  case $folder in /*) rm -f "$folder/$AGENT_LINK" || return 1 ;; esac
  rm -f "$AGENT_CONF" "$PELMAR_STATE/pelmar_token.json" "$RECORDS/supernode.json"
}

# pelmar_script ARGUMENT...: the command line of either script, which has start and stop.
pelmar_script() {
  case "$#/${1-}" in
    1/start | 1/stop | 1/remove_dummy_interface | 1/remove_pelmar_configs) with_lock pelmar "$1" ;;
    *) die 'usage: start|stop|remove_dummy_interface|remove_pelmar_configs' ;;
  esac
}
