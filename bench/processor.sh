#!/usr/bin/env bash
# Builds velmora-processor and the demo client (Release, in build-bench/) and times the processor
# against eu-addr2line on 1,000 real crashes (BENCH_REPORTS, as text dumps), then on 200 of their
# minicores (BENCH_MINICORES) against eu-stack; BENCH_ROUNDS (default 3) repeats.
# Not part of the tests or of CI.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v cmake eu-addr2line eu-stack php python3 objcopy >/dev/null ||
    { echo "bench: tools missing; scripts/setup.sh installs them" >&2; exit 1; }
cmake -S bench -B build-bench -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench -j"$(nproc)" --target velmora-processor velmora-democlient >/dev/null
echo "$(nproc) cores,$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2), $(free -g | awk '/^Mem:/ {print $2}') GiB"
python3 bench/processor.py build-bench "${BENCH_REPORTS:-1000}" "${BENCH_MINICORES:-200}"
