#!/bin/sh
# The project's test command: set up a fresh Debian machine, build with
# warnings as errors, and run the whole test suite with ctest.
#
#   scripts/test.sh            (build directory: build/)
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh

build=${OSTREL_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_WERROR=ON
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
