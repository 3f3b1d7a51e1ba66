# shellcheck shell=dash
# What the scripts know of Drovik's daemons and of the sessions of its server. Read by "." behind
# vpn_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader

DROVIK_SERVER_BIT=16 # in the list of online users

# fail_as_said SECTION TEXT: with the last line of what a daemon has said as it ended.
fail_as_said() {
  local line
  line=$(printf '%s\n' "$2" | tail -n 1)
  case $line in
    *'] bad "'*) fail settings-bad "[$1] ${line#*] }" ;;
    *'OpenSSL refuses'*) fail settings-bad "[$1] $line" ;;
    *'/dev/net/tun'*) fail kernel-lacks "[$1] $line" ;;
    *'takes no address'*) fail address-conflict "[$1] $line" ;;
    *) fail daemon-ended "[$1] ${line:-the daemon ended without a word}" ;;
  esac
}

# drovik_kick all [USER], drovik_kick one WHO: WHO is the identifier of a client, an address of
# either end or a user. The daemon has left no session open that is not in the list.
drovik_kick() {
  local identifier
  [ -e "$ONLINE_USERS" ] || return 0
  WHO=$2 WHO_USER=$(base64_line "$2") awk -v type=$DROVIK_SERVER_BIT -v kind="$1" '
    BEGIN { who = ENVIRON["WHO"]; user = ENVIRON["WHO_USER"] }
    $6 != type || $1 !~ /^[0-9a-f:]+$/ { next }
    $8 == user || (kind == "all" && who == "") ||
      (kind == "one" && ($1 == who || $2 == who || $5 == who)) { print $1 }
  ' "$ONLINE_USERS" | while read -r identifier; do
    mibsh MorviServer.disconnect "{\"mac\":\"$identifier\"}" >/dev/null ||
      note "$identifier is not kicked"
  done
}
