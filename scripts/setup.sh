#!/bin/sh
# Installs, from Debian's packages, whatever the build and the tests need and
# the machine lacks. Safe to run again: it installs nothing that is present.
set -eu

# g++-multilib and googletest (its sources) are for the 32-bit build;
# lighttpd is the web server the end-to-end tests start the daemon through.
pkgs="cmake g++ g++-multilib clang libclang-rt-14-dev make ninja-build libgtest-dev googletest iproute2 nftables python3 util-linux lighttpd"
# chromium is for the browser test of the viewer's browser view; where it
# cannot be installed that test is skipped, so its failure is only a warning.
optional="chromium"
missing=""
for p in $pkgs; do
    dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
done
missing_optional=""
for p in $optional; do
    dpkg -s "$p" >/dev/null 2>&1 || missing_optional="$missing_optional $p"
done
[ -z "$missing$missing_optional" ] && exit 0

if [ "$(id -u)" = 0 ]; then SUDO=""; elif command -v sudo >/dev/null; then SUDO="sudo"; else
    [ -z "$missing_optional" ] ||
        echo "setup: missing optional packages:$missing_optional (run as root to install them)" >&2
    [ -z "$missing" ] && exit 0
    echo "setup: missing packages:$missing (run as root to install them)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
if [ -n "$missing" ]; then
    echo "setup: installing$missing"
    $SUDO apt-get install -y -q --no-install-recommends $missing
fi
if [ -n "$missing_optional" ]; then
    echo "setup: installing$missing_optional"
    $SUDO apt-get install -y -q --no-install-recommends $missing_optional ||
        echo "setup: could not install$missing_optional; the browser test will be skipped" >&2
fi
