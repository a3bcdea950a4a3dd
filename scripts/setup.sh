#!/usr/bin/env bash
# Installs what building, running and testing the sender, the crash handler and the service
# need on Debian 12 (as root).
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends \
    g++ binutils make cmake clang libclang-rt-14-dev \
    qtbase5-dev qttools5-dev qttools5-dev-tools qttranslations5-l10n \
    libquazip1-qt5-dev \
    php-cli php-zip unzip python3 xvfb xauth xdotool imagemagick fonts-dejavu-core procps \
    dpkg-dev lintian iproute2 \
    time hyperfine curl libxcb1-dev cloc \
    nginx-light php-fpm php-sqlite3 php-pgsql postgresql openssl wrk \
    elfutils libdw-dev libdebuginfod-dev debuginfod libc6-dbg lld strace faketime gdb \
    libqt5sql5-sqlite libqt5sql5-psql \
    chromium chromium-driver python3-selenium
# The service's own user: service/run.sh started as root runs its workers and processors as it.
id velmora >/dev/null 2>&1 \
    || useradd --system --user-group --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin velmora
