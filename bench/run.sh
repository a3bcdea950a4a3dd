#!/usr/bin/env bash
# Builds error_report and the bench helpers (Release, in build-bench/), makes the data in a
# temporary folder and runs the four benchmarks. Not part of the tests or of CI.
# BENCH_RUNS (default 11) sets the repeats; BENCH_PORT (default 28751) the loopback port
# that this build of the program fetches its post-info file from.
set -euo pipefail
cd "$(dirname "$0")/.."
port=${BENCH_PORT:-28751}
command -v cmake Xvfb xdotool hyperfine curl gzip python3 /usr/bin/time >/dev/null ||
    { echo "bench: tools missing; scripts/setup.sh installs them" >&2; exit 1; }

cmake -S bench -B build-bench -DCMAKE_BUILD_TYPE=Release -DERROR_REPORT_SERVICE_HOST="127.0.0.1:$port" >/dev/null
cmake --build build-bench -j"$(nproc)" --target error_report reportdriver barewindow mapwait >/dev/null

data=$(mktemp -d -t error-report-bench.XXXXXX)
trap 'rm -rf "$data"' EXIT
python3 bench/gendata.py "$data/crash.dmp" 200 "$data/client.log" 5

echo "$(nproc) cores,$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2), $(free -g | awk '/^Mem:/ {print $2}') GiB"
python3 bench/bench.py build-bench "$data" "$port"
