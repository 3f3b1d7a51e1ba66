# shellcheck shell=bash
# The accounts of a private appliance: the host's system accounts by name and number, none of their
# passwords, and two people. Run in the folder that becomes the root. In bash alone where it can be:
# this is on the way of every start.

# user|number|name in full; their passwords are made again and left where only root can read them
PEOPLE=(
  'admin|1000|Administrator of this appliance'
  'guest|1001|General user'
)
OUR_GROUPS=(
  administrators:x:1900:admin
  fenro-resolve:x:1901:
  admin:x:1000:
  guest:x:1001:
)
PASSWORD_AGE=19000:0:99999:7:::

write_accounts() {
  local row user id name hash passwords=() passwd=() group=() shadow=()
  take_system_accounts
  group+=("${OUR_GROUPS[@]}")
  for row in "${PEOPLE[@]}"; do
    printf -v row '%08x%08x' "$SRANDOM" "$SRANDOM"
    passwords+=("$row")
  done
  mapfile -t hash < <(printf '%s\n' "${passwords[@]}" | openssl passwd -6 -stdin)
  for row in "${!PEOPLE[@]}"; do
    IFS='|' read -r user id name <<<"${PEOPLE[row]}"
    passwd+=("$user:x:$id:$id:$name:/home/$user:/bin/bash")
    shadow+=("$user:${hash[row]}:$PASSWORD_AGE")
    write_private "var/lib/appliance/password.$user" "${passwords[row]}"
  done
  printf '%s\n' "${group[@]}" >etc/group
  write_private etc/shadow "${shadow[@]}"
  # The last, whole or not at all: a kept state that has it is complete.
  printf '%s\n' "${passwd[@]}" >etc/passwd.new
  mv etc/passwd.new etc/passwd
}

# People of the host are no accounts in here; whatever their numbers, ours take them.
take_system_accounts() {
  local name id rest
  while IFS=: read -r name _ id rest; do
    ((id < 1000 || id == 65534)) || continue
    passwd+=("$name:x:$id:$rest")
    shadow+=("$name:*:$PASSWORD_AGE")
  done </etc/passwd
  while IFS=: read -r name _ id _; do
    ((id >= 1000 && id != 65534)) || group+=("$name:x:$id:")
  done </etc/group
}

write_private() {
  local file=$1
  shift
  (umask 077 && printf '%s\n' "$@" >"$file")
}
