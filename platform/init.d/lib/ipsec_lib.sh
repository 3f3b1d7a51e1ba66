# shellcheck shell=dash
# IPsec of the L2TP scripts: one IKE daemon for the server and all client tunnels, told what to do
# by a file for each in a folder that only root sees. Read by "." behind vpn_lib.sh.

IPSEC_DIR=$RUN_DIR/ipsec
IKE_CONF=/usr/lib/fenro/strongswan.conf
# A link to charon-systemd, so that another one of this host is left alone.
IKE_DAEMON=/usr/lib/fenro/fenro-charon
IKE_SOCKET=unix://$RUN_DIR/charon.vici # as in strongswan.conf
IKE_SECONDS=10                         # for the daemon to come up
IKE_PATIENCE=60                        # seconds that one command may take
IKE_PROPOSALS=aes256-sha256-modp2048,aes128-sha256-modp2048
IKE_PROPOSALS=$IKE_PROPOSALS,aes256-sha1-modp2048,aes128-sha1-modp2048
ESP_PROPOSALS=aes256-sha256,aes128-sha256,aes256-sha1,aes128-sha1

# A kernel that encrypts packets: it is asked for a state with the ciphers that everybody has.
esp_available() {
  local zeros=0x0000000000000000000000000000000000000000
  set -- src 192.0.2.1 dst 192.0.2.2 proto esp spi 0x100
  modprobe -q esp4 2>/dev/null || :
  ip xfrm state add "$@" mode transport auth 'hmac(sha1)' "$zeros" enc 'cbc(aes)' \
    "${zeros%????????}" 2>/dev/null || return 1
  ip xfrm state delete "$@" 2>/dev/null
}

# ipsec_secret PSK: in hexadecimal, so that no byte of it means anything in the file.
ipsec_secret() {
  printf '0x'
  printf '%s' "$1" | od -An -v -tx1 | tr -d ' \n'
}

# ipsec_connection NAME PSK REMOTE LOCAL_PORT REMOTE_PORT ACTION: a connection of IKEv1 that carries
# UDP as it is, which is what L2TP clients have. An empty port means any.
ipsec_connection() {
  cat <<CONF
connections {
  $1 {
    version = 1
    remote_addrs = $3
    proposals = $IKE_PROPOSALS
    unique = never
    dpd_delay = 30s
    local {
      auth = psk
    }
    remote {
      auth = psk
    }
    children {
      $1 {
        mode = transport
        esp_proposals = $ESP_PROPOSALS
        local_ts = dynamic[udp${4:+/$4}]
        remote_ts = dynamic[udp${5:+/$5}]
        start_action = $6
      }
    }
  }
}
secrets {
  ike-$1 {
    $([ "$3" = %any ] || printf 'id = %s' "$3")
    secret = $(ipsec_secret "$2")
  }
}
CONF
}

# ipsec_write NAME PSK REMOTE LOCAL_PORT REMOTE_PORT ACTION
ipsec_write() {
  mkdir -p "$IPSEC_DIR" && write_file "$IPSEC_DIR/$1.conf" ipsec_connection "$@"
}

ike_command() {
  STRONGSWAN_CONF=$IKE_CONF timeout "$IKE_PATIENCE" swanctl "$@" --uri "$IKE_SOCKET" </dev/null \
    >/dev/null 2>&1 9>&-
}

ike_running() { [ -n "$(pids_of "${IKE_DAEMON##*/}" "$IKE_DAEMON")" ]; }

ike_start() {
  local rounds=$((IKE_SECONDS * 5))
  ike_running || STRONGSWAN_CONF=$IKE_CONF setsid -f "$IKE_DAEMON" </dev/null >/dev/null 2>&1 9>&-
  until ike_command --version --daemon; do
    rounds=$((rounds - 1))
    [ "$rounds" -gt 0 ] || return 1
    sleep 0.2
  done
}

# Tells the daemon what the folder holds now; connections whose file is gone go. Without any the
# daemon ends.
ipsec_load() {
  local file
  printf 'include %s/*.conf\n' "$IPSEC_DIR" >"$RUN_DIR/swanctl.conf"
  for file in "$IPSEC_DIR"/*.conf; do
    [ -e "$file" ] || continue
    ike_start && ike_command --load-all --clear --file "$RUN_DIR/swanctl.conf"
    return
  done
  end_processes "${IKE_DAEMON##*/}" "$IKE_DAEMON"
}

# ipsec_remove NAME
ipsec_remove() {
  [ -e "$IPSEC_DIR/$1.conf" ] || return 0
  rm -f "$IPSEC_DIR/$1.conf"
  ike_running && ike_command --terminate --ike "$1" --force
  with_lock ipsec ipsec_load
}

ike_established() {
  STRONGSWAN_CONF=$IKE_CONF timeout "$IKE_PATIENCE" swanctl --list-sas --ike "$1" --uri \
    "$IKE_SOCKET" </dev/null 2>/dev/null 9>&- |
    grep -q ESTABLISHED
}

# ike_failure NAME SECONDS: has the daemon shake hands. Prints why that fails, the code and the
# daemon's own word; fails itself when there is a connection.
ike_failure() {
  local said
  ! ike_established "$1" || return 1
  said=$(STRONGSWAN_CONF=$IKE_CONF timeout "$IKE_PATIENCE" swanctl --initiate --ike "$1" \
    --timeout "$2" --uri "$IKE_SOCKET" \
    </dev/null 2>&1 9>&-) && return 1
  printf '%s\n' "$said" | awk '
    # A peer with another key cannot read what we prove ours with, nor we its complaint. The first
    # row that fits counts.
    function sign(words, code) {
      if (found == "" && index(text, words)) { found = code; word = line[words] }
    }
    { text = text "\n" $0; for (w in signs) if (index($0, signs[w])) line[signs[w]] = $0 }
    BEGIN {
      n = split("NO_PROPOSAL_CHOSEN|AUTHENTICATION_FAILED|INVALID_HASH_INFORMATION|PAYLOAD_MALFORMED|malformed INFORMATIONAL|" \
        "could not decrypt|hash does not match|INVALID_KEY_INFORMATION|Network is unreachable|No route to host", signs, "|")
    }
    END {
      sign("NO_PROPOSAL_CHOSEN", "no-common-cipher")
      for (i = 2; i <= 8; ++i) sign(signs[i], "psk-wrong")
      for (i = 9; i <= n; ++i) sign(signs[i], "no-route")
      if (found == "") { found = "no-answer"; word = "no answer to the IKE handshake" }
      sub(/^\[[A-Z]+\] /, "", word)
      print found " " word
    }'
}
