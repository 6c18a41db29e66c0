#!/bin/sh
# Installs, from Debian's packages, whatever the build and the tests need and
# the machine lacks. Safe to run again: it installs nothing that is present.
. "$(dirname "$0")/lib.sh"

# g++-multilib and googletest (its sources) are for the 32-bit build;
# lighttpd is the web server the end-to-end tests start the daemon through;
# lighttpd and apache2 are also the Digest-authenticating cameras (reverse
# proxies in front of the simulated camera) of tests/e2e/test_camera_digest.py;
# with apache2, lintian and man-db the package is installed, reviewed and
# removed again (tests/e2e/test_package.py); libfaketime steps the daemon's
# wall clock in the reliability runs (and util-linux's unshare, mount and
# prlimit give them a mount namespace with a small tmpfs and a low
# descriptor limit); python3-matplotlib draws the chaos run's plot.
install_packages cmake g++ g++-multilib clang libclang-rt-14-dev make ninja-build libgtest-dev \
    googletest iproute2 nftables python3 util-linux lighttpd apache2 lintian man-db libfaketime \
    python3-matplotlib
# chromium is for the browser test of the viewer's browser view; where it
# cannot be installed that test is skipped with a message.
install_packages --optional chromium || echo "setup: the browser test will be skipped" >&2
