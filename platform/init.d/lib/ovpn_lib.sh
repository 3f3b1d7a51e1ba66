# shellcheck shell=dash
# What the scripts of OpenVPN share: what a client profile may say, and the sessions of the server.
# Read by "." behind vpn_lib.sh.
# shellcheck disable=SC2034 # some names are for the reader

OVPN_SERVER_BIT=4
OVPN_CLIENTS=/etc/config/openvpn/clients
OVPN_DAEMON=/usr/sbin/openvpn

# How the daemon reads a profile, as awk functions. Its lines stand in blocks, which end where a line begins with the
# closing tag, or outside. option() is true for a line outside of a block that sets something: "name" is what, and
# "values" are its words from "word" 1 on, all without the quotes that the daemon would take away. "setenv opt" before
# an option only makes the daemon forgive it. A <connection> block holds options itself.
# shellcheck disable=SC2016 # what follows is awk's
OVPN_READER='
  function option(   text, count, at) {
    text = $0
    sub(/\r$/, "", text)
    sub(/^[ \t]+/, "", text)
    if (block != "") { if (index(text, "</" block ">") == 1) block = ""; return 0 }
    if (text ~ /^<\/?connection>[ \t]*$/ || text ~ /^[#;]/ || text == "") return 0
    if (text ~ /^<[^<>]+>[ \t]*$/) { block = substr(text, 2, index(text, ">") - 2); return 0 }
    gsub(/["\047\\]/, "", text)
    count = split(text, part, /[ \t]+/)
    for (at = 1; part[at] == "setenv" && part[at + 1] == "opt"; at += 2);
    name = part[at]
    sub(/^-+/, "", name)
    split("", word)
    for (words = 0; at + words < count; ++words) word[words + 1] = part[at + words + 1]
    return 1
  }'

# ovpn_risk PROFILE: the first line that would have the daemon load, run or hand out something, and that no option
# behind the profile could take back. Nothing is printed for a profile that may run.
ovpn_risk() {
  awk "$OVPN_READER"'
    # Variables are for scripts, and some of them have a meaning for every program.
    function commands(variable) {
      return variable ~ /^(LD_|GLIBC_|MALLOC_|BASH|OPENSSL_|LOC|GCONV|TZ)/ || variable ~ /^(ENV|PATH|IFS|SHELLOPTS|PS4|CDPATH|NLSPATH|TMPDIR|HOSTALIASES|RES_OPTIONS)$/
    }
    # The folder of root s own libraries, or the one that the daemon itself has for plugins.
    function installed(file) { return (file ~ /^\/usr\/lib\// && file !~ /\.\./) || file !~ /\// }
    BEGIN { split("config chroot engine providers pkcs11-providers replay-persist tls-export-cert genkey mktun rmtun", rows, " "); for (i in rows) never[rows[i]] }
    !option() { next }
    name in never || (name == "plugin" && !installed(word[1])) || (name == "setenv" && commands(word[1])) { print name " " word[1]; exit }
    # A file of names and passwords would be sent to whoever the profile says is the proxy.
    name == "http-proxy-user-pass" || (name == "socks-proxy" && words > 2) { print name; exit }
    name == "http-proxy" && words > 2 && word[3] !~ /^(auto|auto-nct|none|stdin)$/ { print name " " word[3]; exit }
  ' "$1"
}

# ovpn_known_ciphers PROFILE: its "data-ciphers" without those that the installed daemon would refuse to start with.
ovpn_known_ciphers() {
  {
    "$OVPN_DAEMON" --show-ciphers 2>/dev/null | sed -n 's/^\([A-Z0-9][A-Za-z0-9-]*\) .*/known \1/p'
    awk "$OVPN_READER"' option() && name == "data-ciphers" { print "list " word[1] }' "$1"
  } | awk '
    $1 == "known" { known[toupper($2)] = $2; next }
    $1 == "list" {
      count = split($2, part, ":")
      list = ""
      for (i = 1; i <= count; ++i) {
        cipher = toupper(part[i]) == "NONE" ? "none" : known[toupper(part[i])]
        if (cipher != "") list = list (list == "" ? "" : ":") cipher
      }
    }
    END { print list }'
}

ovpn_manage() { /usr/lib/fenro/fenro-openvpn-manage "$@" 2>/dev/null; }

# ovpn_listed all|one WHO: addresses in the tunnel of those whom the list of online users knows as WHO: by the user, or
# for "one" also by an address, with or without its port. A client may have moved to another port since.
ovpn_listed() {
  [ -e "$ONLINE_USERS" ] || return 0
  WHO=$2 WHO_USER=$(base64_line "$2") awk -v type="$OVPN_SERVER_BIT" -v kind="$1" '
    BEGIN { who = ENVIRON["WHO"]; user = ENVIRON["WHO_USER"] }
    $6 == type && ($8 == user || (kind == "one" && ($2 ":" $3 == who || $2 == who || $5 == who))) { print $5 }
  ' "$ONLINE_USERS"
}

# ovpn_sessions all|one [WHO]: the same as numbers in the daemon's own count; all of them without WHO.
ovpn_sessions() {
  local listed=
  [ -z "${2-}" ] || listed=$(ovpn_listed "$1" "$2")
  ovpn_manage 'status 3' | KIND=$1 WHO=${2-} LISTED=$listed awk -F '\t' '
    BEGIN { who = ENVIRON["WHO"]; count = split(ENVIRON["LISTED"], row, "\n"); for (i = 1; i <= count; ++i) listed[row[i]] }
    $1 != "CLIENT_LIST" { next }
    who == "" || $10 == who || $4 in listed || (ENVIRON["KIND"] == "one" && $3 == who) { print $11 }'
}

# ovpn_kick all|one [WHO]: the clients are told to end, not to come back at once.
ovpn_kick() {
  local session
  for session in $(ovpn_sessions "$@"); do
    ovpn_manage "client-kill $session HALT" >/dev/null
  done
}

# A kernel with TUN devices, the module loaded and the device in place.
ovpn_device() {
  [ -c /dev/net/tun ] || modprobe -q tun 2>/dev/null || :
  [ -c /dev/net/tun ] || { mkdir -p /dev/net && mknod -m 600 /dev/net/tun c 10 200 2>/dev/null; }
  # Without a driver behind it the device can't be opened.
  { : <>/dev/net/tun; } 2>/dev/null
}

# ovpn_value NAME PROFILE: the first word of the last line of a name.
ovpn_value() {
  NAME=$1 awk "$OVPN_READER"' option() && name == ENVIRON["NAME"] { value = word[1] } END { print value }' "$2"
}

# ovpn_section INTERFACE: the section of the client profile that it belongs to.
ovpn_section() {
  is_number "${1#tun}" 2001 $((2000 + MAX_SLOT)) && printf 'OPENVPN_CLIENT%s\n' $((${1#tun} - 2000))
}

# ovpn_client_down SECTION: what only this protocol leaves in a profile goes with the rest.
ovpn_client_down() {
  local key
  client_down "$1"
  for key in 'Trusted IP' 'Trusted Proto'; do
    [ -z "$(vpn_get "$1" "$key")" ] || vpn_set "$1" "$key" ''
  done
}
