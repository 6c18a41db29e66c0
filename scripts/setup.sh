#!/bin/sh
# Installs, from Debian's packages, whatever the build and the tests need and
# the machine lacks. Safe to run again: it installs nothing that is present.
set -eu

# g++-multilib and googletest (its sources) are for the 32-bit build;
# lighttpd is the web server the end-to-end tests start the daemon through.
pkgs="cmake g++ g++-multilib clang libclang-rt-14-dev make ninja-build libgtest-dev googletest iproute2 nftables python3 util-linux lighttpd"
missing=""
for p in $pkgs; do
    dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" = 0 ]; then SUDO=""; elif command -v sudo >/dev/null; then SUDO="sudo"; else
    echo "setup: missing packages:$missing (run as root to install them)" >&2
    exit 1
fi
echo "setup: installing$missing"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends $missing
