#!/usr/bin/env bash
# Builds the C++ with clang under AddressSanitizer and UndefinedBehaviorSanitizer, with the
# libFuzzer targets, in build-asan/ and runs the whole test suite and the fuzz runs there.
# Expects what scripts/setup.sh installs.
set -euo pipefail
cd "$(dirname "$0")/.."
CC=gcc CXX=clang++ cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DERROR_REPORT_SANITIZE=ON -DERROR_REPORT_FUZZ=ON
cmake --build build-asan -j"$(nproc)"
cd build-asan
ctest --output-on-failure
