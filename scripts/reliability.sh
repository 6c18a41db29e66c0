#!/bin/sh
# The reliability runs in one command: builds the daemon and its simulator
# tools if needed, runs every fault, load and life-cycle test of
# tests/reliability/ against the real daemon (each file in its own private
# network namespace), then the soak, and rewrites docs/RELIABILITY.md with
# what was tried, how often and what came of it.
#
#   scripts/reliability.sh                    soak of 10 minutes (about 18 min)
#   scripts/reliability.sh --soak-minutes 1   about 9 minutes
#
# Settings (environment): OSTREL_RELIABILITY_BUILD_DIR (default
# build-reliability/). Logs of each test file are kept in run/reliability/.
# Exit status 1 when any test failed (the report is written all the same).
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
soak=10
while [ $# -gt 0 ]; do
    case $1 in
        --soak-minutes) soak=$2; shift 2 ;;
        *) echo "usage: $0 [--soak-minutes N]" >&2; exit 2 ;;
    esac
done
build=${OSTREL_RELIABILITY_BUILD_DIR:-$root/build-reliability}
case $build in /*) ;; *) build=$root/$build ;; esac
out=$root/run/reliability

if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
    gen=""
    command -v ninja >/dev/null && gen="-G Ninja"
    # shellcheck disable=SC2086
    cmake -S . -B "$build" $gen -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$build" --target Ostrel ostrel-camsim ostrel-schedsim ostrel-viewer -j 2

rm -rf "$out"
mkdir -p "$out"
export OSTREL_BIN="$build/Ostrel" OSTREL_CAMSIM="$build/tools/ostrel-camsim" \
    OSTREL_SCHEDSIM="$build/tools/ostrel-schedsim" OSTREL_TOOLS_DIR="$root/tools" \
    OSTREL_RELIABILITY_RESULTS="$out/results.jsonl" OSTREL_SOAK_MINUTES="$soak"
: > "$out/results.jsonl"
: > "$out/runs.txt"
status=0
start_all=$(date +%s)
for t in camera_faults control_load lifecycle soak; do
    echo "== $t"
    t0=$(date +%s)
    rc=0
    OSTREL_RELIABILITY_TEST=$t tools/ostrel-netns python3 -B "tests/reliability/test_$t.py" -v \
        > "$out/$t.log" 2>&1 || rc=$?
    t1=$(date +%s)
    summary=$(grep -E '^(OK|FAILED)' "$out/$t.log" | tail -n 1)
    [ -n "$summary" ] || summary="did not finish (exit $rc)"
    [ "$rc" = 0 ] || status=1
    printf '%s\t%s\t%s\n' "$t" "$((t1 - t0))" "$summary" >> "$out/runs.txt"
    echo "   $summary, $((t1 - t0)) s"
done
end_all=$(date +%s)
python3 -B tests/reliability/report.py "$out" "$soak" "$((end_all - start_all))" "$build" \
    > docs/RELIABILITY.md
echo "report: docs/RELIABILITY.md (logs in $out)"
exit $status
