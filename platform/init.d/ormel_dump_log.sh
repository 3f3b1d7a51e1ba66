#!/bin/sh
# shellcheck shell=dash
# Gathers what somebody needs who looks for a fault without seeing the appliance, and no secret with
# it.
#
#   ormel_dump_log.sh dump_log      makes /tmp/ormel_dump_log.tar.gz, for root alone
# shellcheck source=lib/vpn_lib.sh
. /usr/lib/fenro/vpn_lib.sh

ARCHIVE=/tmp/ormel_dump_log.tar.gz
FOLDER=ormel_dump_log
END_BYTES=2097152   # of each file, as a log may be long
COMMAND_SECONDS=10  # for each command

# Settings that are copied without their secrets. What holds nothing else (the accounts of pppd,
# keys) is only listed.
CONFIGURATION='/etc/config/vpn.conf /etc/config/vpn_options.conf /etc/config/vpn_block.conf /etc/config/vpn_user_ex.conf
  /etc/config/ormel/pelmar.conf /etc/config/ormel/tamid.conf /etc/config/ormel/cloudagent.cfg
  /etc/config/ormel/wireguard/server_peers.conf /var/run/cms_config/supernode.json'
LISTED='/etc/config /etc/config/ormel /etc/config/ormel/wireguard /etc/config/openvpn/clients /etc/openvpn/keys
  /etc/config/ppp/peers /etc/ppp /var/log/network /var/lib/ormel /var/lib/fenro'

# file | command, without pipes and quotes
COMMANDS='addresses|ip address
routes|ip route show table all
rules|ip rule
links|ip -s link
sockets|ss -tuln
processes|ps -eo pid,ppid,user,etime,comm
nftables|nft list ruleset
iptables|iptables-save
wireguard|wg show
disks|df -h
memory|free
kernel|uname -a
system|cat /etc/os-release
program|sha256sum /usr/sbin/ormel
openvpn|openvpn --version
pppd|pppd --version
xl2tpd|xl2tpd --version
strongswan|swanctl --version
wireguard_tools|wg --version
openssl|openssl version
web_server|nginx -v'

blanked() { awk -f /usr/lib/fenro/secret_names.awk -f /usr/lib/fenro/blank_secrets.awk; }

# put FILE: standard input, without its secrets, as a file of the archive.
put() {
  mkdir -p "$FOLDER/${1%/*}"
  blanked >"$FOLDER/$1"
}

# The end of a file, if it is there.
copy_end() { [ ! -f "$1" ] || tail -c "$END_BYTES" "$1" | put "$1"; }

copy_configuration() {
  local file
  for file in $CONFIGURATION; do
    copy_end "$file"
  done
  for file in /etc/config/openvpn/clients/*; do
    [ ! -f "$file" ] || awk -f /usr/lib/fenro/blank_profile.awk "$file" | put "$file"
  done
}

copy_logs() {
  local file install
  install=$(/sbin/getcfg ORMEL Install_Path -f /etc/config/pakrix.conf 2>/dev/null) || :
  for file in /var/log/network/ORMEL.log* ${install:+"$install"/var/log/ORMEL.log*} "$ONLINE_USERS"
  do
    case $file in *.lock | *.lck) continue ;; esac
    copy_end "$file"
  done
  for file in /etc/init.d/vpn_*.sh; do
    journalctl -q --no-pager -n 1000 -t "${file##*/}" 2>/dev/null || :
  done | put log/journal
}

write_states() {
  local name command
  printf '%s\n' "$COMMANDS" | while IFS='|' read -r name command; do
    # shellcheck disable=SC2086 # the words of the table
    timeout "$COMMAND_SECONDS" $command </dev/null 2>&1 | put "state/$name"
  done
  # shellcheck disable=SC2086,SC2012 # the folders of the list; nobody reads this but people
  ls -ln $LISTED 2>&1 | put state/files
}

dump_log() {
  local work
  work=$(mktemp -d /tmp/ormel_dump.XXXXXXXX) || die 'no room for the archive'
  # shellcheck disable=SC2064 # the folder of now
  trap "rm -rf '$work'" EXIT
  trap 'exit 1' HUP INT TERM
  cd "$work" || die 'no room for the archive'
  mkdir "$FOLDER" || die 'no room for the archive'
  copy_configuration
  copy_logs
  write_states
  tar -czf archive "$FOLDER" || die 'the archive cannot be written'
  # Whatever somebody has put in its place is replaced and not followed.
  mv -fT archive "$ARCHIVE" || die "$ARCHIVE: cannot be put in its place"
}

case "$#/${1-}" in
  1/dump_log) dump_log ;;
  *) die 'usage: dump_log' ;;
esac
