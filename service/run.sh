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
data=
db=
store=
public_url=
processors=1
processor=
symbols=()
includes=()
rate_limit=60
conn_limit=4
keep_days=90
max_bytes=$((64 * 1024 * 1024))
max_log_bytes=$((32 * 1024 * 1024))
body_timeout=10
queue_alarm=900
workers=8
user=velmora
deploy=
install_root=/opt/velmora3
logs=
cache=
server_name=crash.example.com
cert=
cert_key=
# Each slow client holds a connection; nginx's default of 1024 a worker is soon filled.
connections=4096

usage() {
    cat <<EOF
Usage: ${0##*/} [options]
       ${0##*/} --deploy CONFIG_DIR [options]

Serves /service-data/client-crashdump-postinfo.ini and takes crash reports at POST /upload,
storing each archive under DIR/raw/ and its row in the database.

  --host H            address to listen on (default $host)
  --port P            port to listen on (default $port)
  --data DIR          where everything is kept (default ~/.local/share/velmora3-service)
  --db URL            sqlite:/path or postgresql://user@host:port/db (default sqlite:DIR/reports.sqlite)
  --store DIR         the archive store, which several services may share (default DIR/raw)
  --public-url URL    the upload URL the post-info file names (default http://H:P/upload)
  --processors N      processors to start (default $processors)
  --processor PATH    the velmora-processor executable (default: the one built in this checkout)
  --symbols DIR       a folder of debug files for the processors (repeatable)
  --rate-limit N      uploads a minute per client address, 0 for none (default $rate_limit)
  --conn-limit N      uploads under way at once per client address, 0 for any (default $conn_limit)
  --keep-days N       days raw archives are kept, 0 for ever (default $keep_days)
  --max-bytes N       largest archive accepted, in bytes (default $max_bytes)
  --max-log-bytes N   largest log in an archive, unpacked, in bytes (default $max_log_bytes)
  --body-timeout S    seconds an upload may pause before it is dropped (default $body_timeout)
  --queue-alarm S     /health/queue fails once a report waited this long (default $queue_alarm)
  --workers N         PHP-FPM workers (default $workers)
  --nginx-include F   a file of nginx directives added to the server block (repeatable)
  --user NAME         started as root, the user that runs everything but the masters (default $user)

--deploy CONFIG_DIR writes a real host's files into CONFIG_DIR (on the host, /etc/velmora3) from
the same templates, and CONFIG_DIR/INSTALL says where each goes. With it:
  --install-root DIR  where service/ is installed (default $install_root)
  --data DIR          the service's data (default /var/lib/velmora3), --logs DIR (default
                      /var/log/velmora3), --cache DIR for the pages' cache (default /var/cache/velmora3)
  --server-name NAME  the site's host name (default $server_name)
  --cert F, --cert-key F  the TLS certificate chain and key (default Let's Encrypt's for NAME)
  --processor PATH    (default /usr/local/bin/velmora-processor); --db, --store and the limits as above

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
        --deploy) deploy=$2 ;;
        --install-root) install_root=$2 ;;
        --logs) logs=$2 ;;
        --cache) cache=$2 ;;
        --server-name) server_name=$2 ;;
        --cert) cert=$2 ;;
        --cert-key) cert_key=$2 ;;
        --user) user=$2 ;;
        --conn-limit) conn_limit=$2; number "$1" "$2" ;;
        --max-log-bytes) max_log_bytes=$2; number "$1" "$2" ;;
        --queue-alarm) queue_alarm=$2; number "$1" "$2" ;;
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
[ "$max_log_bytes" -ge 1024 ] || die "--max-log-bytes wants at least 1024"
[ "$queue_alarm" -ge 1 ] || die "--queue-alarm wants at least 1"

# An upload's entries are capped one by one: the dump at the processor's cap for a dump,
# info.ini as the endpoint reads it, the log at --max-log-bytes; the archive at their sum.
max_unpacked=$((16 * 1024 * 1024 + 64 * 1024 + max_log_bytes))
max_body=$((max_bytes + 65536))
# PHP holds a form field whole, a few times over, while it parses the form.
memory_mb=$((3 * max_body / 1048576 + 64))
[ "$memory_mb" -ge 128 ] || memory_mb=128
if [ "$rate_limit" -gt 0 ]; then
    zone_line="limit_req_zone \$upload_limit_key zone=uploads:10m rate=${rate_limit}r/m;"
    # A burst of N at once, then one every 60/N seconds.
    limit_line="limit_req zone=uploads burst=$((rate_limit - 1)) nodelay;"
else
    zone_line="" limit_line=""
fi
conn_line=
[ "$conn_limit" -eq 0 ] || conn_line="limit_conn upload_connections $conn_limit;"

# These paths go into nginx's and PHP-FPM's configuration files verbatim.
plain_paths() {
    local path
    for path in "$@"; do
        case $path in
            *[!A-Za-z0-9/._@+,:=~-]*) die "'$path' holds a character the configuration cannot carry; use a plainer path" ;;
        esac
    done
}

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

# The files both a run here and a real host take from the templates; $1 is the folder they go to.
render_common() {
    local template name
    render "$here/conf/nginx-main.conf.in" "$1/nginx-main.conf"
    render "$here/conf/nginx-events.conf.in" "$1/nginx-events.conf"
    render "$here/conf/site.conf.in" "$1/$site_name"
    render "$here/conf/php-fpm-pool.conf.in" "$1/php-fpm-pool.conf"
    mkdir -p "$1/www/service-data" "$locations"
    render "$here/conf/postinfo.ini.in" "$1/www/service-data/client-crashdump-postinfo.ini"
    for template in "$here"/conf/locations/*.conf.in; do
        name=${template##*/}
        render "$template" "$locations/${name%.in}"
    done
}

# Values every template may use; the callers add the rest.
common_vars() {
    vars=(WEB "$service/web" CONF "$service/conf" STORE "$store" DATA "$data" LOGS "$logs" USER "$user"
          MAX_BYTES "$max_bytes" MAX_BODY "$max_body" BODY_TIMEOUT "$body_timeout" WORKERS "$workers"
          MEMORY_LIMIT "${memory_mb}M" RATE_LIMIT_ZONE "$zone_line" RATE_LIMIT "$limit_line" CONN_LIMIT "$conn_line"
          NOFILE $((2 * connections)) CONNECTIONS "$connections" UPLOAD_URL "$public_url" LOCATIONS "$locations"
          "$@")
}

if [ -n "$deploy" ]; then
    data=${data:-/var/lib/velmora3}
    store=${store:-$data/raw}
    logs=${logs:-/var/log/velmora3}
    cache=${cache:-/var/cache/velmora3}
    db=${db:-postgresql://$user@/velmora?host=/run/postgresql}
    processor=${processor:-/usr/local/bin/velmora-processor}
    cert=${cert:-/etc/letsencrypt/live/$server_name/fullchain.pem}
    cert_key=${cert_key:-/etc/letsencrypt/live/$server_name/privkey.pem}
    [ "$public_url" != "http://$url_host/upload" ] || public_url=https://$server_name/upload
    mkdir -p "$deploy" || die "cannot create $deploy"
    config_dir=$(cd "$deploy" && pwd)
    service=$install_root/service
    plain_paths "$config_dir" "$service" "$data" "$store" "$logs" "$cache" "$cert" "$cert_key" "$processor"
    locations=$config_dir/nginx-locations
    site_name=nginx-site.conf
    symbol_line=
    for ((i = 1; i < ${#symbols[@]}; i += 2)); do symbol_line+=" --symbols ${symbols[$i]}"; done
    # Both schemes serve the sender's two paths, and neither redirects: the sender follows no
    # redirect, so a program built for http must get its answers over http. The pages are TLS only.
    server_lines="    listen 80;
    listen [::]:80;
    listen 443 ssl http2;
    listen [::]:443 ssl http2;
    server_name $server_name;
    ssl_certificate $cert;
    ssl_certificate_key $cert_key;
    ssl_protocols TLSv1.2 TLSv1.3;
    ssl_session_cache shared:velmora_tls:10m;"
    extra=(SERVER "$server_lines" RUN "$config_dir" INCLUDES "" CACHE "$cache/pages"
        ERROR_LOG "error_log \"$logs/nginx-error.log\" error;" FPM_SOCKET /run/php/velmora3.sock POOL velmora3
        FPM_USER "user = $user
group = $user" FPM_LISTEN_OWNER "listen.owner = www-data
listen.group = www-data
listen.mode = 0660" CONFIG_PHP "$config_dir/service.php" UPLOAD_TMP "$data/upload" WWW "$config_dir/www"
        HTPASSWD "$config_dir/htpasswd" HEALTH_ACCESS "allow 127.0.0.1;
    allow ::1;
    deny all;" PAGES_TLS "if (\$scheme = http) {
        return 301 https://\$host\$request_uri;
    }
    add_header Strict-Transport-Security \"max-age=31536000\" always;"
        CONFIG_DIR "$config_dir" SERVICE "$service" PROCESSOR "$processor" DB "$db" KEEP_DAYS "$keep_days"
        MAX_LOG_BYTES "$max_log_bytes" QUEUE_ALARM "$queue_alarm" SYMBOLS "${symbol_line# }")
    common_vars "${extra[@]}"
    render_common "$config_dir"
    render "$here/conf/service.env.in" "$config_dir/service.env"
    render "$here/conf/service.php.in" "$config_dir/service.php"
    mkdir -p "$config_dir/systemd"
    for template in "$here"/conf/systemd/*.in; do
        name=${template##*/}
        render "$template" "$config_dir/systemd/${name%.in}"
    done
    cat >"$config_dir/INSTALL" <<EOF
Generated by service/run.sh --deploy for $server_name. As root, with service/ in $service:

ln -s $config_dir/nginx-site.conf /etc/nginx/sites-enabled/velmora3-crash
ln -s $config_dir/nginx-main.conf /etc/nginx/modules-enabled/50-velmora3.conf
  (Debian's /etc/nginx/nginx.conf includes modules-enabled/ in its main context)
in /etc/nginx/nginx.conf, replace the line "worker_connections 768;" in the events block by
  include $config_dir/nginx-events.conf;
ln -s $config_dir/php-fpm-pool.conf /etc/php/8.2/fpm/pool.d/velmora3.conf
systemctl link $config_dir/systemd/*.service $config_dir/systemd/*.timer
install -d -o $user -g www-data -m 0750 $data $store
  (nginx, as www-data, sends the archives and minicores the pages hand out from the store)
install -d -o $user -g $user -m 0700 $data/upload $logs
install -d -o www-data -g www-data $cache
systemctl enable --now velmora-migrate velmora-processor@1 velmora-maintain.timer
systemctl reload php8.2-fpm nginx
EOF
    echo "Wrote the real host's files into $config_dir; $config_dir/INSTALL says where each goes."
    exit 0
fi

command -v php >/dev/null || die "PHP is missing (Debian package php-cli)"
php -r 'exit(extension_loaded("zip") && extension_loaded("pdo_sqlite") && extension_loaded("pdo_pgsql") ? 0 : 1);' \
    || die "PHP's zip, sqlite3 or pgsql module is missing (Debian packages php-zip, php-sqlite3, php-pgsql)"
nginx=$(PATH=$PATH:/usr/sbin command -v nginx) || die "nginx is missing (Debian package nginx-light)"
fpm=$(PATH=$PATH:/usr/sbin command -v php-fpm8.2 || PATH=$PATH:/usr/sbin command -v php-fpm) \
    || die "PHP-FPM is missing (Debian package php-fpm)"

# As root, nothing that reads an upload or a dump runs as root: nginx's and PHP-FPM's workers and
# the processors run as the service's user, who owns the data folder; only the masters stay root.
as_user=()
if [ "$(id -u)" = 0 ]; then
    id "$user" >/dev/null 2>&1 \
        || die "started as root, this runs the workers and the processors as the user '$user', which does not exist; create it (scripts/setup.sh does) or start as another user"
    [ "$(id -u "$user")" != 0 ] || die "--user must not be root: every upload and dump would be parsed by root"
    as_user=(setpriv --reuid="$user" --regid="$user" --init-groups --)
fi

data=${data:-${XDG_DATA_HOME:-$HOME/.local/share}/velmora3-service}
mkdir -p "$data" || die "cannot create the data folder $data"
data=$(cd "$data" && pwd)
db=${db:-sqlite:$data/reports.sqlite}
store=${store:-$data/raw}
mkdir -p "$store" || die "cannot create the store $store"
store=$(cd "$store" && pwd)
run=$data/run
logs=$data/log
# Root's home is not the service user's to write.
[ "${#as_user[@]}" -eq 0 ] || export DEBUGINFOD_CACHE_PATH=${DEBUGINFOD_CACHE_PATH:-$data/debuginfod}
plain_paths "$data" "$store" "$here" "${includes[@]}"

# One service per data folder: a second would rewrite the first one's configuration under it.
# No child inherits the lock: one left behind would keep the service from starting again.
exec {lock}>"$data/run.lock"
flock -n "$lock" || die "another service is already running on $data"

# Each process run.sh starts leads a process group of its own, whose ids are kept here: what a
# killed run.sh left running (a master and its workers, a processor) is stopped before a new start.
groups_file=$data/run.groups
stop_groups() {
    local group tries
    for group in "$@"; do kill -TERM -- "-$group" 2>/dev/null || true; done
    for group in "$@"; do
        tries=0
        while kill -0 -- "-$group" 2>/dev/null && [ $((tries += 1)) -lt 50 ]; do sleep 0.1; done
        kill -KILL -- "-$group" 2>/dev/null || true
    done
}
if [ -s "$groups_file" ]; then
    left=()
    # Only groups still led or held by one of our programs: the ids may have been reused since.
    while read -r group; do
        for member in $(pgrep -g "$group" 2>/dev/null); do
            case $(readlink "/proc/$member/exe" 2>/dev/null) in
                "$nginx"|"$fpm"|*/velmora-processor) left+=("$group"); break ;;
            esac
        done
    done <"$groups_file"
    if [ "${#left[@]}" -gt 0 ]; then
        echo "Stopping what the last run on $data left running (process groups ${left[*]})."
        stop_groups "${left[@]}"
    fi
fi
: >"$groups_file"

rm -rf "$run"
mkdir -p "$run"/{www/service-data,php-upload} "$run"/nginx/{body,proxy,fastcgi,uwsgi,scgi} "$logs"

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

if [ "${#as_user[@]}" -gt 0 ]; then
    user_line="user $user $user;"
    fpm_user="user = $user
group = $user"
    fpm_owner="listen.owner = $user
listen.group = $user
listen.mode = 0600"
else
    user_line="" fpm_user="" fpm_owner="listen.mode = 0600"
fi
include_lines=
for file in "${includes[@]}"; do include_lines+="include \"$file\";"$'\n'; done
service=$here
locations=$run/locations
site_name=site.conf
extra=(RUN "$run" USER_LINE "$user_line" SERVER "    listen $listen;
    server_name _;" INCLUDES "$include_lines" CACHE "$run/nginx/pages" ERROR_LOG "" FPM_SOCKET "$run/php-fpm.sock"
    POOL velmora FPM_USER "$fpm_user" FPM_LISTEN_OWNER "$fpm_owner" CONFIG_PHP "$run/config.php"
    UPLOAD_TMP "$run/php-upload" WWW "$run/www" HTPASSWD "$data/htpasswd" HEALTH_ACCESS "" PAGES_TLS "")
common_vars "${extra[@]}"
render "$here/conf/nginx.conf.in" "$run/nginx.conf"
render "$here/conf/php-fpm.conf.in" "$run/php-fpm.conf"
render_common "$run"
php -r 'file_put_contents($argv[1], "<?php\nreturn " . var_export([
        "db" => $argv[2], "store" => $argv[3], "data" => $argv[4], "max_bytes" => (int) $argv[5],
        "keep_days" => (int) $argv[6], "max_log_bytes" => (int) $argv[7], "queue_alarm" => (int) $argv[8],
        "debuginfod_urls" => $argv[9]], true) . ";\n");' \
    "$run/config.php" "$db" "$store" "$data" "$max_bytes" "$keep_days" "$max_log_bytes" "$queue_alarm" "${DEBUGINFOD_URLS:-}"
export VELMORA_CONFIG=$run/config.php

if [ "${#as_user[@]}" -gt 0 ]; then
    # The user's own, as the workers write it; what root made here before (a test's files, an
    # earlier run's) is handed over too.
    chown -R --from=0:0 "$user:$user" "$data" "$store" && chown "$user:$user" "$data" "$store" && chmod 0700 "$data" \
        || die "cannot give $data to the user $user"
    for path in "$data" "$store" "$here/web" "${processor:-$(dirname "$here")/build/bin/velmora-processor}"; do
        [ ! -e "$path" ] || "${as_user[@]}" test -r "$path" \
            || die "the user $user cannot reach $path: let it through the folders above (chmod o+x)"
    done
fi

"${as_user[@]}" php "$here/schema/migrate.php" "$db" {lock}>&- || die "the database $db could not be brought to the current schema"
"${as_user[@]}" php "$here/web/maintain.php" {lock}>&- || die "the store $store could not be tidied"

pids=()
names=()
logs_of=()
stop_all() {
    trap '' TERM INT
    local pid i tries=0
    [ -z "${timer:-}" ] || kill "$timer" 2>/dev/null || true
    # nginx and PHP-FPM stop gracefully on QUIT, finishing the uploads under way; their workers
    # are reached through the group even when a master is gone.
    for i in "${!pids[@]}"; do
        [ "${pids[$i]}" != 0 ] || continue
        case ${names[$i]} in
            nginx|php-fpm) kill -QUIT "${pids[$i]}" 2>/dev/null || kill -TERM -- "-${pids[$i]}" 2>/dev/null || true ;;
            *) kill -TERM -- "-${pids[$i]}" 2>/dev/null || true ;;
        esac
    done
    # Everything has until a little before five seconds; then it is killed.
    for pid in "${pids[@]}"; do
        [ "$pid" != 0 ] || continue
        while kill -0 -- "-$pid" 2>/dev/null && [ $((tries += 1)) -lt 45 ]; do sleep 0.1; done
        kill -KILL -- "-$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    : >"$groups_file"
}
stopped() {
    stop_all
    exit 0
}
# Starts a command in a process group of its own: its name, its log, then the command.
start() {
    local name=$1 log=$2
    shift 2
    setsid "$@" {lock}>&- 2>>"$log" &
    started $! "$name" "$log"
}
started() {
    local i=${#pids[@]}
    for j in "${!names[@]}"; do [ "${names[$j]}" != "$2" ] || i=$j; done
    pids[i]=$1
    names[i]=$2
    logs_of[i]=$3
    echo "$1" >>"$groups_file"
}
# Tells which process ended, with the end of its log, and stops the rest.
ended() {
    if grep -q 'Address already in use' "${logs_of[$1]}" 2>/dev/null; then
        die "port $port on $host is taken by another program"
    fi
    tail -n 5 "${logs_of[$1]}" >&2 2>/dev/null || true
    die "${names[$1]} stopped $2 (its log: ${logs_of[$1]})"
}
trap stopped TERM INT
trap stop_all EXIT

# A port that answers is taken; one bound but not listening makes nginx fail below.
if (exec 3<>"/dev/tcp/$host/$port") 2>/dev/null; then
    die "port $port on $host is taken by another program"
fi
start nginx "$logs/nginx.log" "$nginx" -e stderr -p "$run" -c "$run/nginx.conf"
start php-fpm "$logs/php-fpm.log" "$fpm" -F -y "$run/php-fpm.conf"

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

# A processor that dies (a hostile dump, the out-of-memory killer) is started again, the service
# meanwhile taking uploads: after 1 s, doubling up to 60 s while it keeps dying, back to 1 s once
# one has run for a minute.
declare -A due=() delay=() since=()
start_processor() {
    start "processor $1" "$logs/processor-$1.log" "${as_user[@]}" "$processor" --db "$db" --store "$store" \
        --worker "${HOSTNAME%%.*}-$1" --rules "$here/signature" "${symbols[@]}"
    since[$1]=$SECONDS
}
if [ "$processors" -gt 0 ]; then
    processor=${processor:-$(dirname "$here")/build/bin/velmora-processor}
    if [ -x "$processor" ]; then
        for n in $(seq 1 "$processors"); do
            delay[$n]=1
            start_processor "$n"
        done
    else
        echo "No processor at $processor: reports will wait unprocessed."
    fi
fi

echo "Crash reports on http://$url_host/crashes/ (users in $data/htpasswd)"
echo "Service on http://$url_host/, data in $data"
echo "Logs in $logs/"

# Tidies the store once an hour; nginx or PHP-FPM ending on its own ends the service.
tidy_at=$((SECONDS + 3600))
while true; do
    for n in "${!due[@]}"; do
        if [ "${due[$n]}" -le "$SECONDS" ]; then
            unset "due[$n]"
            start_processor "$n"
        fi
    done
    if [ "$SECONDS" -ge "$tidy_at" ]; then
        "${as_user[@]}" php "$here/web/maintain.php" {lock}>&- || echo "The hourly tidying of the store failed (its messages are above)."
        tidy_at=$((SECONDS + 3600))
    fi
    nap=$((tidy_at - SECONDS))
    for n in "${!due[@]}"; do [ $((due[$n] - SECONDS)) -ge "$nap" ] || nap=$((due[$n] - SECONDS)); done
    [ "$nap" -ge 1 ] || nap=1
    [ "$nap" -le 60 ] || nap=60
    # Holding none of run.sh's files, so that one left by a killed run.sh keeps no pipe open.
    sleep "$nap" </dev/null >/dev/null 2>&1 {lock}>&- &
    timer=$!
    finished=
    status=0
    live=()
    for pid in "${pids[@]}"; do [ "$pid" = 0 ] || live+=("$pid"); done
    # Quiet: a processor killed is told below, not as bash's job notice.
    wait -n -p finished "${live[@]}" "$timer" 2>/dev/null || status=$?
    kill "$timer" 2>/dev/null || true
    [ "${finished:-}" != "$timer" ] || continue
    for i in "${!pids[@]}"; do
        [ "${pids[$i]}" = "${finished:-}" ] || continue
        case ${names[$i]} in
            processor*)
                n=${names[$i]#processor }
                # Its workers' group goes too, should it have left any.
                kill -KILL -- "-${pids[$i]}" 2>/dev/null || true
                if [ $((SECONDS - since[$n])) -ge 60 ]; then delay[$n]=1; fi
                echo "run.sh: processor $n ended with status $status; starting it again in ${delay[$n]} s" | tee -a "${logs_of[$i]}"
                due[$n]=$((SECONDS + delay[$n]))
                delay[$n]=$((delay[$n] * 2 > 60 ? 60 : delay[$n] * 2))
                pids[i]=0
                ;;
            *) ended "$i" "unexpectedly; stopping the service" ;;
        esac
    done
done
