#!/usr/bin/env bash
# Runs the crash report service in the foreground: nginx and PHP-FPM configured from the
# templates in conf/, the database migrated first, and the processors when they are built.
# SIGTERM or SIGINT stops everything it started.
set -euo pipefail
# Reports hold users' logs and dumps, and the configuration may hold the database's password.
umask 077

here=$(dirname "$(readlink -f "$0")")
host=127.0.0.1
port=8750
data=${XDG_DATA_HOME:-$HOME/.local/share}/velmora3-service
db=
store=
public_url=
processors=1
processor=
symbols=()
includes=()
rate_limit=60
keep_days=90
max_bytes=$((64 * 1024 * 1024))
body_timeout=30
workers=8

usage() {
    cat <<EOF
Usage: ${0##*/} [options]

Serves /service-data/client-crashdump-postinfo.ini and takes crash reports at POST /upload,
storing each archive under DIR/raw/ and its row in the database.

  --host H            address to listen on (default $host)
  --port P            port to listen on (default $port)
  --data DIR          where everything is kept (default $data)
  --db URL            sqlite:/path or postgresql://user@host:port/db (default sqlite:DIR/reports.sqlite)
  --store DIR         the archive store, which several services may share (default DIR/raw)
  --public-url URL    the upload URL the post-info file names (default http://H:P/upload)
  --processors N      processors to start (default $processors)
  --processor PATH    the velmora-processor executable (default: the one built in this checkout)
  --symbols DIR       a folder of debug files for the processors (repeatable)
  --rate-limit N      uploads a minute per client address, 0 for none (default $rate_limit)
  --keep-days N       days raw archives are kept, 0 for ever (default $keep_days)
  --max-bytes N       largest archive accepted, in bytes (default $max_bytes)
  --body-timeout S    seconds an upload may pause before it is dropped (default $body_timeout)
  --workers N         PHP-FPM workers (default $workers)
  --nginx-include F   a file of nginx directives added to the server block (repeatable)

DEBUGINFOD_URLS is passed on to the processors.
EOF
}

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

number() {
    case $2 in ''|*[!0-9]*) die "$1 wants a whole number, not '$2'" ;; esac
}

while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || case $1 in -h|--help) ;; *) usage >&2; exit 2 ;; esac
    case $1 in
        --host) host=$2 ;;
        --port) port=$2; number "$1" "$2" ;;
        --data) data=$2 ;;
        --db) db=$2 ;;
        --store) store=$2 ;;
        --public-url) public_url=$2 ;;
        --processors) processors=$2; number "$1" "$2" ;;
        --processor) processor=$2 ;;
        --symbols) symbols+=(--symbols "$(readlink -f "$2")") ;;
        --rate-limit) rate_limit=$2; number "$1" "$2" ;;
        --keep-days) keep_days=$2; number "$1" "$2" ;;
        --max-bytes) max_bytes=$2; number "$1" "$2" ;;
        --body-timeout) body_timeout=$2; number "$1" "$2" ;;
        --workers) workers=$2; number "$1" "$2" ;;
        --nginx-include) includes+=("$(readlink -f "$2")") ;;
        -h|--help) usage; exit 0 ;;
        *) usage >&2; exit 2 ;;
    esac
    shift 2
done
[ "$port" -ge 1 ] && [ "$port" -le 65535 ] || die "--port wants 1 to 65535"
[ "$workers" -ge 1 ] || die "--workers wants at least 1"
[ "$max_bytes" -ge 1024 ] || die "--max-bytes wants at least 1024"
[ "$body_timeout" -ge 1 ] || die "--body-timeout wants at least 1"

case $host in
    *:*) listen="[$host]:$port" url_host="[$host]:$port" ;;
    *) listen="$host:$port" url_host="$host:$port" ;;
esac
public_url=${public_url:-http://$url_host/upload}
# The sender reads any line holding both brackets as a section header, an IPv6 literal too.
case $public_url in
    http://?*|https://?*) ;;
    *) die "--public-url wants an http:// or https:// URL, not '$public_url'" ;;
esac
case $public_url in
    *[][[:space:]]*) die "the post-info file cannot name '$public_url': the sender takes a line with brackets for a section header, so give --public-url with a host name" ;;
esac

command -v php >/dev/null || die "PHP is missing (Debian package php-cli)"
php -r 'exit(extension_loaded("zip") && extension_loaded("pdo_sqlite") && extension_loaded("pdo_pgsql") ? 0 : 1);' \
    || die "PHP's zip, sqlite3 or pgsql module is missing (Debian packages php-zip, php-sqlite3, php-pgsql)"
nginx=$(PATH=$PATH:/usr/sbin command -v nginx) || die "nginx is missing (Debian package nginx-light)"
fpm=$(PATH=$PATH:/usr/sbin command -v php-fpm8.2 || PATH=$PATH:/usr/sbin command -v php-fpm) \
    || die "PHP-FPM is missing (Debian package php-fpm)"

mkdir -p "$data" || die "cannot create the data folder $data"
data=$(cd "$data" && pwd)
db=${db:-sqlite:$data/reports.sqlite}
store=${store:-$data/raw}
mkdir -p "$store" || die "cannot create the store $store"
store=$(cd "$store" && pwd)
run=$data/run
# These paths go into nginx's and PHP-FPM's configuration files verbatim.
for path in "$data" "$store" "$here" "${includes[@]}"; do
    case $path in
        *[!A-Za-z0-9/._@+,:=~-]*) die "'$path' holds a character the configuration cannot carry; use a plainer path" ;;
    esac
done

# One service per data folder: a second would rewrite the first one's configuration under it.
exec {lock}>"$data/run.lock"
flock -n "$lock" || die "another service is already running on $data"

rm -rf "$run"
mkdir -p "$run"/{locations,www/service-data,php-upload} "$run"/nginx/{body,proxy,fastcgi,uwsgi,scgi} "$data/log"

# The crash-stats pages' login. At first start: a user admin with a random password, whose hash
# goes into DATA/htpasswd (outside DATA/run/, so it lasts) and whose text only the owner may read.
login_file() {
    [ -s "$data/htpasswd" ] && return
    command -v openssl >/dev/null || die "openssl is missing (Debian package openssl)"
    local password
    password=$(openssl rand -base64 18 | tr '+/' '-_') || die "cannot make a password"
    (umask 077 && printf '%s\n' "$password" >"$data/admin-password" \
        && printf 'admin:%s\n' "$(openssl passwd -6 -stdin <<<"$password")" >"$data/htpasswd.new" \
        && mv "$data/htpasswd.new" "$data/htpasswd") || die "cannot write the login file $data/htpasswd"
    echo "Created the login for /crashes/: user admin, password in $data/admin-password"
}
login_file

render() {
    php -r '
        $vars = [];
        for ($i = 3; $i < $argc; $i += 2)
            $vars["@" . $argv[$i] . "@"] = $argv[$i + 1];
        $text = strtr(file_get_contents($argv[1]), $vars);
        if (preg_match("/@[A-Z_]+@/", $text, $m)) {
            fwrite(STDERR, "$argv[1]: nothing fills $m[0]\n");
            exit(1);
        }
        file_put_contents($argv[2], $text);
    ' "$1" "$2" "${vars[@]}" || die "cannot write $2"
}

if [ "$(id -u)" = 0 ]; then
    # As root, nginx's workers would otherwise drop to nobody, who cannot reach DATA.
    user_line="user root;" fpm_root=-R
else
    user_line="" fpm_root=
fi
if [ "$rate_limit" -gt 0 ]; then
    zone_line="limit_req_zone \$upload_limit_key zone=uploads:10m rate=${rate_limit}r/m;"
    # A burst of N at once, then one every 60/N seconds.
    limit_line="limit_req zone=uploads burst=$((rate_limit - 1)) nodelay;"
else
    zone_line="" limit_line=""
fi
include_lines=
for file in "${includes[@]}"; do include_lines+="include \"$file\";"$'\n'; done
vars=(RUN "$run" DATA "$data" WEB "$here/web" CONF "$here/conf" LISTEN "$listen" USER "$user_line"
      MAX_BYTES "$max_bytes" MAX_BODY $((max_bytes + 65536)) BODY_TIMEOUT "$body_timeout"
      RATE_LIMIT_ZONE "$zone_line" RATE_LIMIT "$limit_line" INCLUDES "$include_lines"
      WORKERS "$workers" UPLOAD_URL "$public_url" STORE "$store")
render "$here/conf/nginx.conf.in" "$run/nginx.conf"
render "$here/conf/php-fpm.conf.in" "$run/php-fpm.conf"
render "$here/conf/postinfo.ini.in" "$run/www/service-data/client-crashdump-postinfo.ini"
for template in "$here"/conf/locations/*.conf.in; do
    name=${template##*/}
    render "$template" "$run/locations/${name%.in}"
done
php -r 'file_put_contents($argv[1], "<?php\nreturn " . var_export([
        "db" => $argv[2], "store" => $argv[3], "data" => $argv[4],
        "max_bytes" => (int) $argv[5], "keep_days" => (int) $argv[6]], true) . ";\n");' \
    "$run/config.php" "$db" "$store" "$data" "$max_bytes" "$keep_days"
export VELMORA_CONFIG=$run/config.php

php "$here/schema/migrate.php" "$db" || die "the database $db could not be brought to the current schema"
php "$here/web/maintain.php" || die "the store $store could not be tidied"

pids=()
names=()
logs=()
stop_all() {
    trap '' TERM INT
    local pid tries=0
    [ -z "${timer:-}" ] || kill "$timer" 2>/dev/null || true
    # nginx and PHP-FPM stop gracefully on QUIT, finishing the uploads under way.
    for i in "${!pids[@]}"; do
        case ${names[$i]} in
            nginx|php-fpm) kill -QUIT "${pids[$i]}" 2>/dev/null || true ;;
            *) kill -TERM "${pids[$i]}" 2>/dev/null || true ;;
        esac
    done
    # Everything has until a little before five seconds; then it is killed.
    for pid in "${pids[@]}"; do
        while kill -0 "$pid" 2>/dev/null && [ $((tries += 1)) -lt 45 ]; do sleep 0.1; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}
stopped() {
    stop_all
    exit 0
}
started() {
    pids+=("$1")
    names+=("$2")
    logs+=("$3")
}
# Tells which process ended, with the end of its log, and stops the rest.
ended() {
    if grep -q 'Address already in use' "${logs[$1]}" 2>/dev/null; then
        die "port $port on $host is taken by another program"
    fi
    tail -n 5 "${logs[$1]}" >&2 2>/dev/null || true
    die "${names[$1]} stopped $2 (its log: ${logs[$1]})"
}
trap stopped TERM INT
trap stop_all EXIT

# A port that answers is taken; one bound but not listening makes nginx fail below.
if (exec 3<>"/dev/tcp/$host/$port") 2>/dev/null; then
    die "port $port on $host is taken by another program"
fi
"$nginx" -e stderr -p "$run" -c "$run/nginx.conf" 2>>"$data/log/nginx.log" &
started $! nginx "$data/log/nginx.log"
"$fpm" -F -y "$run/php-fpm.conf" $fpm_root 2>>"$data/log/php-fpm.log" &
started $! php-fpm "$data/log/php-fpm.log"

# Ready once the health check passes through nginx and PHP-FPM to the database and the store.
ready() {
    # Asked only once PHP-FPM listens, so that nginx logs no refused connection for it.
    [ -S "$run/php-fpm.sock" ] || return 1
    health=$(curl --noproxy '*' -s -w ' (%{http_code})' "http://$url_host/health") && [ "${health: -5}" = "(200)" ]
}
tries=0
until ready; do
    for i in "${!pids[@]}"; do
        kill -0 "${pids[$i]}" 2>/dev/null || ended "$i" "at start"
    done
    [ $((tries += 1)) -lt 300 ] || die "the service on $listen was not ready within a minute: ${health:-no answer}"
    sleep 0.2
done

if [ "$processors" -gt 0 ]; then
    processor=${processor:-$(dirname "$here")/build/bin/velmora-processor}
    if [ -x "$processor" ]; then
        for n in $(seq 1 "$processors"); do
            "$processor" --db "$db" --store "$store" --worker "${HOSTNAME%%.*}-$n" --rules "$here/signature" "${symbols[@]}" \
                2>>"$data/log/processor-$n.log" &
            started $! "processor $n" "$data/log/processor-$n.log"
        done
    else
        echo "No processor at $processor: reports will wait unprocessed."
    fi
fi

echo "Crash reports on http://$url_host/crashes/ (users in $data/htpasswd)"
echo "Service on http://$url_host/, data in $data"
echo "Logs in $data/log/"

# Tidies the store once an hour; any started process that ends on its own ends the service.
while true; do
    sleep 3600 &
    timer=$!
    finished=
    wait -n -p finished "${pids[@]}" "$timer" || true
    if [ "${finished:-}" = "$timer" ]; then
        php "$here/web/maintain.php" || echo "The hourly tidying of the store failed (its messages are above)."
        continue
    fi
    kill "$timer" 2>/dev/null || true
    for i in "${!pids[@]}"; do
        [ "${pids[$i]}" != "${finished:-}" ] || ended "$i" "unexpectedly; stopping the service"
    done
done
