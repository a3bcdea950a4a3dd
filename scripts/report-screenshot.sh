#!/usr/bin/env bash
# Saves a screenshot of a report's page on the crash-stats pages, logged in as admin with the
# password that service/run.sh made in its data folder; for the demo without a display.
#   scripts/report-screenshot.sh http://127.0.0.1:8750 DATA-DIR REPORT-ID OUT.png
set -euo pipefail
[ $# -eq 4 ] || { echo "usage: ${0##*/} SERVICE-URL DATA-DIR REPORT-ID OUT.png" >&2; exit 2; }
base=$1 data=$2 id=$3 out=$4
php -r 'require $argv[1]; exit(isReportId($argv[2]) ? 0 : 1);' "$(dirname "$0")/../service/web/lib/store.php" "$id" ||
    { echo "${0##*/}: not a report id: $id" >&2; exit 2; }
case $base in
    http://?*|https://?*) ;;
    *) echo "${0##*/}: not an http:// or https:// URL: $base" >&2; exit 2 ;;
esac
password=$(php -r 'echo rawurlencode(trim(file_get_contents($argv[1])));' "$data/admin-password")
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
rm -f "$out"
# The login goes in the URL: headless chromium takes it for the whole site, and the service
# is on loopback here. --no-sandbox, since the demo may run as root. A home of its own keeps
# its crash database and settings apart from any other chromium running at the same time.
HOME=$profile chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir="$profile" \
    --window-size=1200,1000 --screenshot="$out" \
    "${base%%://*}://admin:$password@${base#*://}/crashes/report/$id" >"$profile/chromium.log" 2>&1 || true
[ -s "$out" ] || { tail -n 5 "$profile/chromium.log" >&2; echo "${0##*/}: no screenshot was made" >&2; exit 1; }
echo "Screenshot of report $id: $out"
