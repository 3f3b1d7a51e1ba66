#!/usr/bin/env bash
# pair.sh OPTIONS_OF_APPLIANCE -- TESTS: runs TESTS in a private appliance while a second one,
# "far", is on the same local network with the same options. The far one runs ormel_far_agent, which
# is beside TESTS.
set -uo pipefail
APPLIANCE=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../../script" && pwd -P)/appliance

options=()
while (($#)) && [[ $1 != -- ]]; do options+=("$1"); shift; done
agent=$(dirname -- "${2:?tests after --}")/ormel_far_agent

exec {ready}< <(exec "$APPLIANCE" "${options[@]}" --name far --address 192.168.77.2/24 \
  --ready-fd 3 -- "$agent" 3>&1 >&2)
far=$!
read -r pid <&"$ready" || { echo "the far appliance does not start" >&2; exit 1; }
"$APPLIANCE" "${options[@]}" --join "$pid" "$@"
status=$?
kill -TERM "$far"
wait "$far"
far_status=$?
((far_status != 99)) || status=99 # it found reports of the sanitizers
exit "$status"
