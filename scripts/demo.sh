#!/usr/bin/env bash
# Installs the dependencies, builds, starts the local collector and crashes the demo client,
# whose crash handler writes the dump and opens the report window on it. Without a DISPLAY it
# answers the window itself under Xvfb.
#
# DEMO_BIN=path/to/error_report skips installing and building (the test suite uses it); the demo
# client is then taken from beside it unless DEMO_CLIENT names it. DEMO_PORT must match that
# program's compiled-in service host (default 8750).
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
port=${DEMO_PORT:-8750}

work=$(mktemp -d -t velmora-demo.XXXXXX)
crash=$work/crash
reports=$work/reports
mkdir "$crash"

pids=()
# Found by its exact command line, which holds the fresh dump folder, so nothing else matches.
find_sender() {
    sender=$(pgrep -x -f "$bin 3\.0\.0 $crash $crash/client\.log crash-[0-9]+-[0-9]+\.dmp SIGSEGV")
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
wait_for() {
    local what=$1 watched=$2; shift 2
    local tries=0
    until "$@" >/dev/null 2>&1; do
        kill -0 "$watched" 2>/dev/null || fail "stopped while waiting for $what"
        [ $((tries += 1)) -lt 600 ] || fail "gave up waiting for $what"
        sleep 0.2
    done
}

tools/collector/collector.sh --port "$port" --reports "$reports" 2>"$work/collector.log" &
pids+=($!)
# PHP announces the server only once it listens; another server already on the port makes it quit.
wait_for "the collector on port $port" "${pids[-1]}" grep -q 'Development Server.*started' "$work/collector.log"

# The client dies by SIGSEGV; its handler has then written the dump and started the sender.
crash_client() {
    local status=0
    # In a subshell that reports the status itself, so that the shell's own "Segmentation fault"
    # notice stays out of the output.
    ("$client" --crash=segv --dump-folder "$crash" --log "$crash/client.log" --sender "$bin" \
        >"$work/sender.log" 2>&1 || exit $?) 2>/dev/null || status=$?
    [ "$status" -eq $((128 + 11)) ] || fail "the demo client ended with status $status, not by SIGSEGV"
    dump=$(compgen -G "$crash/crash-*.dmp") || fail "the crash handler wrote no dump"
    echo "The demo client crashed: $(grep -m1 '^signal:' "$dump"), dump $dump"
    scripts/symbolize.sh "$dump" | sed -n '1,3p'
}

headless=
if [ -n "${DISPLAY:-}" ]; then
    echo "Describe the crash in the window and answer Yes to send it to the collector."
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
    wait_for "the collector's receipt" "$app" compgen -G "$reports/*/receipt.json"
    # The collector answers right after storing; give the window a moment to show it.
    sleep 1
    import -window "$window" "$work/window.png"
    echo "Screenshot of the window: $work/window.png"
    stop "$app"
fi

receipt=$(compgen -G "$reports/*/receipt.json" | head -n 1 || true)
if [ -z "$receipt" ]; then
    echo "No report was sent; the archive stays in $crash"
    # Answering No in a real window is a fine ending; the unattended run must send.
    [ -z "$headless" ]
    exit
fi
cat "$receipt"
echo "Report stored in $(dirname "$receipt")"
# The collector read the handler's dump: the receipt names the signal the client died of.
grep -q '"signal_name": *"SIGSEGV"' "$receipt" || fail "the receipt names no SIGSEGV"
