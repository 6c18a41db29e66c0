#!/bin/sh
# The benchmark set in one command: builds the daemon, the simulators and the
# bench tools, runs the micro-benchmarks, then, inside a private network
# namespace, the daemon against the same-protocol reference server (CPU per
# exchange and per camera picture, and their ratios), and the daemon side by
# side with a minimal reference relay, ffmpeg and motion on the same
# simulated camera streams, and prints one table. The full run also writes it
# into docs/PERFORMANCE.md with docs/performance.png.
#
#   scripts/bench.sh           full run (about 45 minutes on 2 cores)
#   scripts/bench.sh --smoke   about 25 seconds: micro-benchmarks briefly,
#                              the daemon against the same-protocol reference
#                              once, the daemon and the reference relay once each;
#                              documents untouched; exit status 1 when a relay
#                              delivered nothing
#
# Run as root on Debian 12 (it installs what is missing from Debian's
# packages), or as a user where user namespaces are allowed and the packages
# are present. Settings (environment): OSTREL_BUILD_DIR and OSTREL_JOBS as
# for every script (scripts/lib.sh; the bench build is $OSTREL_BUILD_DIR-bench,
# default build-bench/), BENCH_REPEATS (3), BENCH_SECONDS (measuring window
# per run, 5), BENCH_TIME_LIMIT (whole run, seconds, 3600).
. "$(dirname "$0")/lib.sh"
build=$base-bench
out=$root/run/bench
mode=full
[ "${1:-}" = "--smoke" ] && mode=smoke

if [ "$(id -u)" = 0 ]; then
    scripts/setup.sh
    if [ $mode = full ]; then
        install_packages libbenchmark-dev coreutils ffmpeg motion gnuplot-nox
    else
        install_packages libbenchmark-dev coreutils
    fi
fi

configure "$build" -DOSTREL_BENCH=ON >/dev/null
cmake --build "$build" -j "$jobs" --target Ostrel ostrel-camsim ostrel-viewer ostrel-refrelay \
    ostrel-refpreimage ostrel-mjpegsink ostrel_micro
mkdir -p "$out"
# The test harness (tests/harness/) finds the bench build's programs.
export PYTHONPATH="$root/tests" OSTREL_BUILD_DIR="$build"

if [ $mode = smoke ]; then
    "$build/bench/ostrel_micro" --benchmark_min_time=0.02 --benchmark_out="$out/micro-smoke.json" \
        --benchmark_out_format=json >/dev/null
    tests/sim/ostrel-netns python3 bench/run_bench.py --build "$build" \
        --work "$out/smoke" --out "$out/smoke.json" --repeats 1 --warmup 1 --measure 2 \
        --relays ostrel,ref --sizes 18KB --no-ladder --no-channels --exchange-repeats 1 --exchange-seconds 3
    python3 bench/report.py "$out/smoke.json" --micro "$out/micro-smoke.json"
    exit 0
fi

"$build/bench/ostrel_micro" --benchmark_min_time=0.5 --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true --benchmark_out="$out/micro.json" \
    --benchmark_out_format=json
timeout "${BENCH_TIME_LIMIT:-3600}" tests/sim/ostrel-netns python3 bench/run_bench.py \
    --build "$build" --work "$out/work" --out "$out/results.json" \
    --repeats "${BENCH_REPEATS:-3}" --measure "${BENCH_SECONDS:-5}"
python3 bench/report.py "$out/results.json" --micro "$out/micro.json" \
    --doc docs/PERFORMANCE.md --png docs/performance.png
