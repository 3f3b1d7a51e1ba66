# shellcheck shell=bash
# The init of a private appliance, read by process 1 and run once it has its new root: starts the
# daemons and the web server, runs the one command, ends everything. As a shell it also reaps what
# its children leave behind.

# program in /usr/lib/fenro | its sockets as /proc/net/unix shows them
DAEMON_TABLE=(
  'ormeld|@/var/run/ormeld.sock'
  'fenro-networkd|@fenro-bus/NetworkService'
  'fenro-jsond|@fenro-bus/vpncaas'
  'fenro-rated|@fenro-bus/RateServer'
  'pelmar-agentd|@fenro-bus/ormel_network_service @fenro-bus/pelmar_expressd'
  'fenro-keeperd|@fenro-bus/KeeperService'
)
LOGS=/run/appliance/log
SANITIZER_ENV=(
  ASAN_OPTIONS=log_path=/run/appliance/sanitizer
  UBSAN_OPTIONS=print_stacktrace=1:log_path=/run/appliance/sanitizer
)
PATIENCE=3000     # rounds of 10 ms for something to come up: an emulated machine is slow
LAST_PATIENCE=200 # and for everything to end

be_init() {
  local status=0
  [[ ! $SANITIZER_LOGS ]] || EXTRA_ENV+=("${SANITIZER_ENV[@]}")
  ulimit -c 0
  # as an installation does it: no search for our libraries
  ldconfig -X || die "the loader's cache could not be made"
  [[ ! $CLOUD ]] || start_cloud
  # Before the first program that may send anything.
  [[ ! -x /etc/init.d/vpn_guard.sh ]] || /etc/init.d/vpn_guard.sh boot ||
    die "the guard of the default gateway is not set"
  keep_password_hashes
  start_daemons
  [[ ! $WEB ]] || start_web
  report_ready
  run_command || status=$?
  end_everything
  report_sanitizers || status=99
  exit "$status"
}

# What the packages' installation does once, and a first login of each user: PPTP and L2TP logins
# need a hash.
keep_password_hashes() {
  local user hook='password optional pam_fenro_password.so'
  [[ -x /usr/sbin/fenro-password && ! -e /etc/config/smbpasswd ]] || return 0
  printf '%s\n' "$hook" >>/etc/pam.d/common-password
  for user in admin guest; do
    env -i "${APPLIANCE_ENV[@]}" "${EXTRA_ENV[@]}" /usr/sbin/fenro-password "$user" \
      <"/var/lib/appliance/password.$user" ||
      die "no password hash of $user"
  done
}

wanted() {
  local name
  case $WITH_DAEMONS in
    none) return 1 ;;
    named) for name in "${DAEMONS[@]}"; do [[ $name != "$1" ]] || return 0; done; return 1 ;;
  esac
  for name in "${WITHOUT[@]}"; do [[ $name != "$1" ]] || return 1; done
}

# All are started before the first is waited for. A tree without some of them is an appliance
# without them.
start_daemons() {
  local row program sockets socket
  local -A pids
  for row in "${DAEMON_TABLE[@]}"; do
    IFS='|' read -r program _ <<<"$row"
    [[ -x /usr/lib/fenro/$program ]] || continue
    wanted "$program" || continue
    setsid env -i "${APPLIANCE_ENV[@]}" "${EXTRA_ENV[@]}" "/usr/lib/fenro/$program" </dev/null \
      >"$LOGS/$program.log" 2>&1 &
    pids[$program]=$!
  done
  for row in "${DAEMON_TABLE[@]}"; do
    IFS='|' read -r program sockets <<<"$row"
    [[ ${pids[$program]-} ]] || continue
    for socket in $sockets; do
      wait_until "${pids[$program]}" listens "$socket" ||
        die "$program did not open $socket: $(<"$LOGS/$program.log")"
    done
  done
}

# Waits until the test given holds, or the process given has ended, or patience has.
wait_until() {
  local pid=$1 round
  shift
  for ((round = 0; round < PATIENCE; round++)); do
    "$@" && return 0
    kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.01
  done
  return 1
}

# Whether somebody accepts connections on a socket: flag 0x10000 in the kernel's table.
listens() {
  local fields
  while read -r -a fields; do
    [[ ${fields[7]-} != "$1" || ${fields[3]} != 00010000 ]] || return 0
  done </proc/net/unix
  return 1
}

# The cloud is at the far end of the cable, as its port is the web server's in here. Its hosts and
# its authority are known in here alone. On a real host the package's installation tells where the
# application's folder is.
start_cloud() {
  local folder=/run/cloud file name log=$LOGS/fenro-cloud.log
  [[ -e /run/netns/lan ]] || die "the cloud belongs to the appliance that others join"
  bash "$folder/make_certificates.sh" "$folder" "$(<"$folder/domain")" ||
    die "no certificates for the cloud"
  for file in hosts ssl/certs/ca-certificates.crt; do # a kept state has those of an earlier cloud
    [[ -e /etc/$file.own ]] || cp "/etc/$file" "/etc/$file.own"
    cp "/etc/$file.own" "/etc/$file"
  done
  while read -r name; do printf '%s %s\n' "$GATEWAY" "$name"; done <"$folder/hosts" >>/etc/hosts
  cat "$folder/ca.pem" >>/etc/ssl/certs/ca-certificates.crt
  ln -sfn "$folder/ca.pem" "/etc/ssl/certs/$(openssl x509 -in "$folder/ca.pem" -noout -hash).0"
  setcfg ORMEL Install_Path /opt/ormel -f /etc/config/pakrix.conf
  setcfg Hollex Install_Path '' -f /etc/config/pakrix.conf
  setsid nsenter --net=/run/netns/lan "$folder/fenro-cloud" "$folder" "$GATEWAY" 443 </dev/null \
    >"$log" 2>&1 &
  wait_until $! cloud_listens || die "the cloud did not start: $(<"$log")"
}

cloud_listens() { (exec 3<>"/dev/tcp/$GATEWAY/443") 2>/dev/null; }

# nginx gets to the programs through the gate and fcgiwrap alone, on sockets that only its workers'
# user may use.
start_web() {
  local user=www-data folder=/run/ormel-web as=()
  [[ -r /usr/share/ormel/web/nginx.conf ]] ||
    die "the installed tree has no web server's configuration"
  ((IS_ROOT)) || user=root # an ordinary user's namespace has one account
  # Only root can write a sanitizer's report.
  ((!IS_ROOT)) || [[ $SANITIZER_LOGS ]] ||
    as=(setpriv "--reuid=$user" "--regid=$user" --clear-groups --no-new-privs)
  mkdir -p /etc/fenro/web
  # closes the sockets to all others: the programs want an ordinary umask
  install -d -m 0700 -o "$user" "$folder"
  make_certificate /etc/fenro/web
  (
    umask 022
    exec env -i "${APPLIANCE_ENV[@]}" "${EXTRA_ENV[@]}" setsid fcgiwrap -c 8 -s \
      "unix:$folder/programs.sock" \
      -p /usr/sbin/ormel.cgi -p /usr/lib/fenro/fenro-login.cgi -p /usr/lib/fenro/fenro-dump.cgi
  ) </dev/null >"$LOGS/fcgiwrap.log" 2>&1 &
  wait_until $! listens "$folder/programs.sock" ||
    die "fcgiwrap did not start: $(<"$LOGS/fcgiwrap.log")"
  chown "$user" "$folder/programs.sock"
  setsid env -i "${APPLIANCE_ENV[@]}" "${EXTRA_ENV[@]}" "${as[@]}" /usr/lib/fenro/fenro-web-gate \
    "$folder/programs.sock" "$folder/fcgi.sock" </dev/null >"$LOGS/fenro-web-gate.log" 2>&1 &
  wait_until $! listens "$folder/fcgi.sock" ||
    die "the gate did not start: $(<"$LOGS/fenro-web-gate.log")"
  chown "$user" "$folder/fcgi.sock"
  # Its error log names the requests that failed, session ids and all.
  (umask 077 &&
    nginx -c /usr/share/ormel/web/nginx.conf -g "user $user;" </dev/null >"$LOGS/nginx.log" 2>&1) ||
    die "nginx did not start: $(<"$LOGS/nginx.log")"
}

make_certificate() {
  [[ ! -e $1/server.key ]] || return 0
  (umask 077 && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 365 \
    -subj "/CN=appliance" -addext "subjectAltName=DNS:appliance,DNS:localhost,IP:127.0.0.1,IP:${ADDRESS%/*}" \
    -keyout "$1/server.key" -out "$1/server.crt" 2>"$LOGS/certificate.log") ||
    die "no certificate: $(<"$LOGS/certificate.log")"
}

report_ready() {
  [[ $READY_FD ]] || return 0
  printf '%s\n' "$HOST_PID" >&"$READY_FD"
  exec {READY_FD}>&-
}

# In the background, so that a signal is acted on at once; still with the caller's input and
# terminal.
run_command() {
  local status interrupted
  trap 'interrupted=1; kill -TERM -1 2>/dev/null' TERM
  trap 'interrupted=1' INT
  env -i --default-signal=INT,QUIT "${APPLIANCE_ENV[@]}" ${TERMINAL:+"TERM=$TERMINAL"} \
    "${EXTRA_ENV[@]}" "${COMMAND[@]}" <&0 &
  interrupted=1
  while [[ $interrupted ]]; do
    interrupted='' status=0
    { wait $! || status=$?; } 2>/dev/null # no word of the shell about a signal that ended it
  done
  return "$status"
}

end_everything() {
  local round
  kill -TERM -1 2>/dev/null || true
  for ((round = 0; round < LAST_PATIENCE; round++)); do
    others_live || return 0
    sleep 0.01
  done
}

others_live() {
  local entry
  for entry in /proc/[0-9]*; do [[ $entry == /proc/1 ]] || return 0; done
  return 1
}

report_sanitizers() {
  local reports=(/run/appliance/sanitizer.*)
  [[ $SANITIZER_LOGS && -e ${reports[0]} ]] || return 0
  cat "${reports[@]}" >&2
  return 1
}
