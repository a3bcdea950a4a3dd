#!/bin/sh
# Runs a test in a network namespace of its own, with nothing but its loopback up: a program
# under test whose port is compiled in then meets no other run, build tree or demo on the host.
PATH=$PATH:/usr/sbin:/sbin
# As root a plain -n; otherwise -r maps the user to root in a user namespace, which may then
# make a network namespace.
flags=-rn
[ "$(id -u)" != 0 ] || flags=-n
if ! why=$(unshare $flags sh -c 'ip link set lo up' 2>&1); then
    echo "netns.sh: this test needs a network namespace of its own (unshare $flags, then ip link set lo up" \
        "from iproute2), which this machine refuses: $why" >&2
    exit 1
fi
exec unshare $flags sh -c 'ip link set lo up && exec "$@"' netns.sh "$@"
