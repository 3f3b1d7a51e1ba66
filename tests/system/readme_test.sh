#!/usr/bin/env bash
# readme_test.sh README APPLIANCE STAGE: every line of the README's blocks after "<!-- tested -->"
# succeeds, typed in one appliance in the order of the page.
set -euo pipefail
lines=$(awk '/^<!-- tested -->$/ { wanted = 1 } /^```$/ { inside = 0 } inside { print } /^```sh$/ && wanted { inside = 1; wanted = 0 }' "$1")
(($(wc -l <<<"$lines") > 3)) || { echo 'the README has no blocks to try' >&2; exit 1; }
exec "$2" --stage "$3" --web -- bash -euxc "/etc/init.d/vpn_common.sh setup_vpn_entrance
$lines"
