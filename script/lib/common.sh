# shellcheck shell=bash
# Shared by the scripts of this folder: where the tree is, how they complain, how they build and
# enter things. Expects `set -euo pipefail` in the script that reads it.
# shellcheck disable=SC2034 # what is set here is used there

TREE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)

# What a program of the appliance finds in its environment, whatever the caller's looks like.
APPLIANCE_ENV=(PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  LANG=C.UTF-8)

# Taken from everything that runs in an appliance: with these, root inside could still change the
# host's kernel.
APPLIANCE_BOUND=-sys_module,-sys_boot,-sys_time,-sys_rawio

NAMESPACES=(unshare --mount --pid --net --uts --ipc --fork) # what a private appliance is in

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

say() { printf '== %s\n' "$*" >&2; }

# Below the ^C that a terminal shows.
say_below() {
  [[ ! -t 2 ]] || printf '\n' >&2
  say "$@"
}

# interrupted STATUS: for traps of a script that can go on where it stopped.
interrupted() {
  say_below "Interrupted. What is built stays; start script/${0##*/} again to go on"
  exit "$1"
}

# Says what is missing in the words of someone who can mend it.
require_namespaces() {
  local user=()
  ((EUID == 0)) || user=(--user --map-root-user)
  "${NAMESPACES[@]}" "${user[@]}" true 2>/dev/null && return
  ((EUID == 0)) ||
    die "this kernel lets no ordinary user make namespaces (user.max_user_namespaces, or a security module): be root"
  die "this kernel, or the container around us, allows no namespaces (mount, pid, net, uts, ipc)"
}

# A script's help is the comment at its head, unless the script prints its own. Asking for help
# does nothing else.
if [[ ${1-} == --help && -f $TREE/script/${0##*/} && ${0##*/} != @(appliance|server) ]]; then
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
  exit 0
fi

WATCHED='' # the process group of `grouped` and `watched`, for the trap of who is ended meanwhile

# grouped COMMAND...: runs a command as the leader of a process group, so that Ctrl-C reaches only
# us: a caller has `end_watched` in its EXIT trap. Ends with the command's exit status.
grouped() {
  local status=0
  setsid env --default-signal=INT,QUIT "$@" </dev/null & # a background command would ignore both
  WATCHED=$!
  wait "$WATCHED" || status=$?
  WATCHED=''
  return "$status"
}

# watched LOG COUNT COMMAND...: the same with its output in a file; says every few seconds what the
# function COUNT, given the file, makes of it.
watched() {
  local log=$1 count=$2 last='' now status=0 next=$((SECONDS + 3))
  shift 2
  setsid env --default-signal=INT,QUIT "$@" >"$log" 2>&1 </dev/null &
  WATCHED=$!
  while kill -0 "$WATCHED" 2>/dev/null; do
    sleep 0.1
    ((SECONDS >= next)) || continue
    next=$((SECONDS + 5))
    now=$("$count" "$log")
    [[ $now == "$last" || ! $now ]] || say "$now"
    last=$now
  done
  wait "$WATCHED" || status=$?
  WATCHED=''
  return "$status"
}

# end_watched SECONDS: ends what `watched` runs, with all that it has started. What takes longer
# than SECONDS is killed: npm tidies up for a long time.
end_watched() {
  local round limit=$(($1 * 20))
  trap '' INT TERM HUP
  [[ $WATCHED ]] || return 0
  kill -TERM -- "-$WATCHED" 2>/dev/null || true
  for ((round = 0; round < limit; round++)); do
    group_lives "$WATCHED" || break
    ((round != 40)) || say "Waiting for what was interrupted to end"
    sleep 0.05
  done
  kill -KILL -- "-$WATCHED" 2>/dev/null || true
  WATCHED=''
}

# Whether a process group has a process that has not ended.
group_lives() {
  local stat fields
  for stat in /proc/[0-9]*/stat; do
    { read -r stat <"$stat"; } 2>/dev/null || continue
    read -r -a fields <<<"${stat##*) }"
    [[ ${fields[2]} != "$1" || ${fields[0]} == Z ]] || return 0
  done
  return 1
}

# For `watched`: how far ninja is, and what the rest will take at the pace so far.
ninja_count() {
  local line
  line=$(grep -aoE '^\[[0-9]+/[0-9]+ [0-9.]+\]' "$1" | tail -n 1) || return 0
  awk -F'[][/ ]' '{ if ($2 > 0) printf "compiling %d/%d, about %d s more\n", $2, $3, $4 / $2 * ($3 - $2) }' <<<"$line"
}

# full_disk LOG FOLDER...: whether a command whose output is in LOG failed because a disk is full,
# and which one. Programs say this in many words, and nothing at all where the disk that is full
# holds the log.
full_disk() {
  local free disk
  read -r free disk < <(df --output=avail,target --block-size=1M -- "${@:2}" 2>/dev/null |
    tail -n +2 | sort -n)
  ((${free:-2} < 2)) || grep -aqsE 'No space left on device|enough free space' "$1" || return 1
  printf 'the disk at %s is full (%s MB free); free some of it and start again' "$disk" "$free"
}

# The start time of a process in clock ticks: with it, a number that was given to another process is
# noticed.
start_time() {
  local stat fields
  { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 1
  read -r -a fields <<<"${stat##*) }" # the name before it may hold blanks
  printf '%s\n' "${fields[19]}"
}

# Whether this host can build the web interface; older tools end in the middle of it.
web_tools_fit() {
  command -v npm >/dev/null && node -e 'const [a, b] = process.versions.node.split(".").map(Number);
    process.exit(a > 18 || (a === 18 && b >= 19) ? 0 : 1)' 2>/dev/null
}
