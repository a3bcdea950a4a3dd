#!/usr/bin/env bash
# Starts the reference crash report collector on PHP's built-in web server.
set -euo pipefail

host=127.0.0.1
port=8750
reports=${COLLECTOR_REPORTS:-${XDG_DATA_HOME:-$HOME/.local/share}/velmora3-collector/reports}
max_bytes=$((64 * 1024 * 1024))

usage() {
    cat <<EOF
Usage: ${0##*/} [--host HOST] [--port PORT] [--reports DIR] [--max-bytes N]

Serves /service-data/client-crashdump-postinfo.ini and takes uploads at /upload,
storing each report in a folder of its own under DIR with a receipt.json.

  --host HOST      address to listen on (default $host)
  --port PORT      port to listen on (default $port)
  --reports DIR    where reports are stored (default $reports)
  --max-bytes N    largest archive accepted, in bytes (default $max_bytes)
EOF
}

while [ $# -gt 0 ]; do
    case $1 in
        --host) host=$2; shift 2 ;;
        --port) port=$2; shift 2 ;;
        --reports) reports=$2; shift 2 ;;
        --max-bytes) max_bytes=$2; shift 2 ;;
        -h|--help) usage; exit 0 ;;
        *) usage >&2; exit 2 ;;
    esac
done
case $max_bytes in ''|*[!0-9]*) echo "--max-bytes wants a number of bytes" >&2; exit 2 ;; esac

# Asked of PHP itself: a pipe into grep -q could kill php with SIGPIPE and fail the check.
php -r 'exit(extension_loaded("zip") ? 0 : 1);' || { echo "PHP's zip module is missing (Debian package php-zip)" >&2; exit 1; }
mkdir -p "$reports"
reports=$(cd "$reports" && pwd)
# A server killed while storing leaves its hidden work folder; it never became a report.
rm -rf "$reports"/.incoming-*

echo "Collector on http://$host:$port/, reports in $reports" >&2
export COLLECTOR_REPORTS=$reports COLLECTOR_MAX_BYTES=$max_bytes
# PHP's own limits sit just above the collector's, so that its checks give the reason.
exec php -d upload_max_filesize="$max_bytes" -d post_max_size=$((max_bytes + 65536)) \
    -d display_errors=0 -d log_errors=1 \
    -S "$host:$port" "$(dirname "$(readlink -f "$0")")/router.php"
