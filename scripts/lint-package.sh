#!/usr/bin/env bash
# Builds the .deb in the build tree that scripts/test.sh made and checks it with lintian: any
# error or warning fails. Tags that an add-on under /opt raises by design are overridden, with
# their reasons, in packaging/lintian-overrides, which the package carries.
set -euo pipefail
cd "$(dirname "$0")/../build"
rm -f ./*.deb
cmake --build . --target package -j"$(nproc)"
lintian --fail-on error,warning --display-info --pedantic ./*.deb
