#!/bin/sh
# The 32-bit x86 build alone (build-i386/): the daemon, its tools and the
# whole test suite compiled with g++ -m32 and run with ctest. The same build
# is also one of those scripts/test.sh runs.
set -eu
cd "$(dirname "$0")/.."
OSTREL_TEST_BUILDS=i386 exec scripts/test.sh
