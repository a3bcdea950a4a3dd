#!/usr/bin/env bash
# Installs the dependencies, builds, makes a sample crash and starts the report window on it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"

crash=$(mktemp -d /tmp/velmora-crash.XXXXXX)
printf '[%s] client started\n[%s] renderer: device lost\n' "$(date -Is)" "$(date -Is)" > "$crash/client.log"
head -c 262144 /dev/urandom > "$crash/crash.dmp"
echo "Sample crash in $crash"

if [ -z "${DISPLAY:-}" ]; then
    echo "No DISPLAY: starting the window under Xvfb; close it with xdotool or Ctrl-C." >&2
    exec xvfb-run -a build/bin/error_report 3.0.0 "$crash" "$crash/client.log" crash.dmp
fi
exec build/bin/error_report 3.0.0 "$crash" "$crash/client.log" crash.dmp
