#!/usr/bin/env bash
# Installs what building, running and testing the sender, the crash handler and the service
# need on Debian 12 (as root).
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends \
    g++ make cmake clang libclang-rt-14-dev \
    qtbase5-dev qttools5-dev qttools5-dev-tools qttranslations5-l10n \
    libquazip1-qt5-dev \
    php-cli php-zip unzip python3 xvfb xauth xdotool imagemagick fonts-dejavu-core procps \
    dpkg-dev lintian \
    time hyperfine curl libxcb1-dev cloc \
    nginx-light php-fpm php-sqlite3 php-pgsql postgresql openssl wrk \
    elfutils libdw-dev libdebuginfod-dev debuginfod libc6-dbg lld strace gdb \
    libqt5sql5-sqlite libqt5sql5-psql \
    chromium chromium-driver python3-selenium
