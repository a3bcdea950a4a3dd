#!/usr/bin/env bash
# Installs the dependencies, builds, starts the local service and crashes the demo client,
# whose crash handler writes the dump and opens the report window on it. The report goes to the
# service, the processor symbolizes it, and it ends on the crash-stats pages. Without a DISPLAY
# it answers the window itself under Xvfb and saves screenshots of the window and the report's page.
#
# DEMO_BIN=path/to/error_report skips installing and building (the test suite uses it); the demo
# client and the processor are then taken from beside it unless DEMO_CLIENT names the client.
# DEMO_PORT must match that program's compiled-in service host (default 8750).
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -n "${DEMO_BIN:-}" ]; then
    bin=$(readlink -f "$DEMO_BIN")
    client=$(readlink -f "${DEMO_CLIENT:-$(dirname "$bin")/velmora-democlient}")
else
    scripts/setup.sh
    cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build -j"$(nproc)"
    bin=$PWD/build/bin/error_report
    client=$PWD/build/bin/velmora-democlient
fi
[ -x "$client" ] || { echo "demo: no demo client at $client (DEMO_CLIENT)" >&2; exit 1; }
processor=$(dirname "$bin")/velmora-processor
[ -x "$processor" ] || { echo "demo: no velmora-processor beside $bin" >&2; exit 1; }
port=${DEMO_PORT:-8750}

work=$(mktemp -d -t velmora-demo.XXXXXX)
# Started as root, run.sh runs the service's workers and processors as its own user, who must
# get through to the service's data and the debug files here.
chmod 711 "$work"
crash=$work/crash
service=$work/service
mkdir "$crash"

pids=()
# Found by its exact command line, which holds the fresh dump folder, so nothing else matches.
find_sender() {
    sender=$(pgrep -x -f "$bin 3\.0\.0 $crash $crash/client\.log crash-[0-9]+-[0-9]+(-[0-9a-f]{16})?\.core SIGSEGV")
}
# The sender is no child of ours (the crashed client started it in a session of its own), so
# its end is polled for rather than waited on.
stop() {
    kill "$1" 2>/dev/null || return 0
    wait "$1" 2>/dev/null || true
    local tries=0
    while kill -0 "$1" 2>/dev/null && [ $((tries += 1)) -lt 100 ]; do sleep 0.1; done
}
stop_all() {
    local pid
    # A sender started by a client that then failed our checks is still looked for.
    [ -n "${sender:-}" ] || ! find_sender || pids=("$sender" "${pids[@]}")
    for pid in "${pids[@]}"; do stop "$pid"; done
}
trap stop_all EXIT

fail() {
    echo "demo: $*" >&2
    for log in "$work"/*.log; do
        [ -s "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
    done
    exit 1
}

# Polls until the command succeeds; the bound only catches a hang, it is never reached normally.
# The test suite stretches it by its factor (TEST_TIMEOUT_FACTOR) for slower builds.
wait_for() {
    local what=$1 watched=$2; shift 2
    local tries=0
    until "$@" >/dev/null 2>&1; do
        kill -0 "$watched" 2>/dev/null || fail "stopped while waiting for $what"
        [ $((tries += 1)) -lt $((600 * ${TEST_TIMEOUT_FACTOR:-1})) ] || fail "gave up waiting for $what"
        sleep 0.2
    done
}

# A vendor's release step: the client's debug information filed by its build ID, where the
# processor looks for it; libc's comes from Debian's libc6-dbg.
scripts/file-debug-info.sh "$work/symbols" "$client" >/dev/null
service/run.sh --port "$port" --data "$service" --processor "$processor" \
    --symbols "$work/symbols" --symbols /usr/lib/debug >"$work/service.log" 2>&1 &
pids+=($!)
service_pid=$!
# run.sh announces the service once it answers; a port already taken makes it quit.
wait_for "the service on port $port" "$service_pid" grep -q '^Service on' "$work/service.log"
cat "$work/service.log"

db=sqlite:$service/reports.sqlite
# The report is stored once its row is in the database, which follows its archive in the store.
stored_report() {
    report=$(php -r 'require $argv[1]; echo connectDatabase($argv[2])->query("SELECT id FROM reports")->fetchColumn();' \
        service/web/lib/db.php "$db" 2>/dev/null) && [ -n "$report" ]
}
# The processor has finished with a report once it is done or failed.
processed() {
    "$processor" --db "$db" --show "$report" >"$work/processed.json" 2>/dev/null &&
        grep -q '"state": *"\(done\|failed\)"' "$work/processed.json"
}

# The client dies by SIGSEGV; its handler has then written the dump and started the sender.
crash_client() {
    local status=0
    # In a subshell that reports the status itself, so that the shell's own "Segmentation fault"
    # notice stays out of the output.
    ("$client" --crash=segv --dump-folder "$crash" --log "$crash/client.log" --sender "$bin" \
        >"$work/sender.log" 2>&1 || exit $?) 2>/dev/null || status=$?
    [ "$status" -eq $((128 + 11)) ] || fail "the demo client ended with status $status, not by SIGSEGV"
    dump=$(compgen -G "$crash/crash-*.core") || fail "the crash handler wrote no dump"
    # The minicore's note of our own is text inside the ELF core.
    echo "The demo client crashed: $(grep -a -m1 '^signal:' "$dump"), dump $dump"
    scripts/symbolize.sh "$dump" | sed -n '1,3p'
}

headless=
if [ -n "${DISPLAY:-}" ]; then
    echo "Describe the crash in the window and answer Yes to send it to the service."
    crash_client
    wait_for "the report window's program" "${pids[-1]}" find_sender
    pids=("$sender" "${pids[@]}")
    while kill -0 "$sender" 2>/dev/null; do sleep 0.5; done
else
    headless=1
    command -v Xvfb xdotool import >/dev/null || fail "Xvfb, xdotool and ImageMagick's import are needed (scripts/setup.sh)"
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
    pids+=($!)
    wait_for "Xvfb" "${pids[-1]}" grep -q . "$work/display"
    export DISPLAY=:$(cat "$work/display")

    # The sender inherits the client's environment. Alt+Y needs the C locale's English mnemonic,
    # and xdotool a real X window even if offscreen is set.
    export LC_ALL=C.UTF-8 QT_QPA_PLATFORM=xcb
    crash_client
    wait_for "the report window's program" "${pids[-1]}" find_sender
    app=$sender
    pids=("$app" "${pids[@]}")
    wait_for "the report window" "$app" xdotool search --onlyvisible --name '^Velmora 3 Error$'
    window=$(xdotool search --onlyvisible --name '^Velmora 3 Error$' | head -n 1)
    [ "$(xdotool getwindowpid "$window")" = "$app" ] || fail "the window belongs to another program"
    # Yes does nothing before the post-info file has arrived and the archive exists.
    wait_for "the dump archive" "$app" compgen -G "$crash/cv3dump_*.zip"

    xdotool windowfocus --sync "$window"
    xdotool type --delay 15 "The client crashed while loading the harbour map after a long session."
    xdotool key alt+y
    wait_for "the stored report" "$app" stored_report
    # The service answers right after storing; give the window a moment to show it.
    sleep 1
    import -window "$window" "$work/window.png"
    echo "Screenshot of the window: $work/window.png"
    stop "$app"
fi

if ! stored_report; then
    echo "No report was sent; the archive stays in $crash"
    # Answering No in a real window is a fine ending; the unattended run must send.
    [ -z "$headless" ]
    exit
fi
stored=$service/raw/${report:0:8}/$report.zip
[ -f "$stored" ] || fail "report $report has a row but no archive at $stored"
answer=$(grep -o "Report $report received ([0-9]* bytes)\." "$service/log/php.log") || fail "the service logged no answer for $report"
echo "The window's answer: $answer"
echo "Report stored in $stored"
# The dump arrived whole: the stored archive's copy names the signal the client died of.
php scripts/crash-dump.php "$stored" >"$work/stored.core" || fail "the stored archive holds no crash dump"
grep -aq '^signal: 11 SIGSEGV' "$work/stored.core" || fail "the stored dump names no SIGSEGV"
echo "The stored dump: $(grep -a -m1 '^signal:' "$work/stored.core")"

wait_for "the processor" "$service_pid" processed
# The processed report: its signature and its innermost frames, as the pages show them.
summary=$(php -r '
    $r = json_decode(file_get_contents($argv[1]), true);
    echo "$r[state]: $r[signal], signature \"$r[signature]\"\n";
    foreach (array_slice($r["frames"] ?? [], 0, 4) as $f)
        printf("  #%d %s %s%s\n", $f["frame"], $f["function"] ?? "?", $f["file"] ? basename($f["file"]) . ":$f[line] " : "",
               $f["inlined"] ? "(inlined)" : "");' "$work/processed.json")
echo "Processed: $summary"
# The crashing function, found by the client's build ID in the symbols folder.
grep -q '"function": *"crash"' "$work/processed.json" || fail "the processed report does not name the function crash"

page=http://127.0.0.1:$port/crashes/report/$report
if [ -n "$headless" ]; then
    scripts/report-screenshot.sh "http://127.0.0.1:$port" "$service" "$report" "$work/crashes.png"
else
    echo "The report on the crash-stats pages: $page"
    echo "Log in as admin with the password in $service/admin-password"
    read -r -p "Press Enter to stop the service. " _ || true
fi
