# shellcheck shell=bash
# Shared by the scripts of this folder: where the tree is, how they complain, how they build and enter things.
# Expects `set -euo pipefail` in the script that reads it.
# shellcheck disable=SC2034 # what is set here is used there

TREE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)

# What a program of the appliance finds in its environment, whatever the caller's looks like.
APPLIANCE_ENV=(PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8)

# Taken from everything that runs in an appliance: with these, root inside could still change the host's kernel.
APPLIANCE_BOUND=-sys_module,-sys_boot,-sys_time,-sys_rawio

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

say() { printf '== %s\n' "$*" >&2; }

# The start time of a process in clock ticks: with it, a number that was given to another process is noticed.
start_time() {
  local stat fields
  { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 1
  read -r -a fields <<<"${stat##*) }" # the name before it may hold blanks
  printf '%s\n' "${fields[19]}"
}

# Whether this host can build the web interface; older tools end in the middle of it.
web_tools_fit() {
  command -v npm >/dev/null && node -e 'const [a, b] = process.versions.node.split(".").map(Number);
    process.exit(a > 20 || (a === 20 && b >= 19) ? 0 : 1)' 2>/dev/null
}
