#!/bin/sh
# The reliability runs in one command: builds the daemon and the simulators
# if needed, runs every fault, load and life-cycle test of
# tests/reliability/ against the real daemon (each file in its own private
# network namespace), then the soak, and rewrites docs/RELIABILITY.md with
# what was tried, how often and what came of it.
#
#   scripts/reliability.sh                    soak of 10 minutes and an hour
#                                             of chaos (about 75 min)
#   scripts/reliability.sh --soak-minutes 1 --chaos-minutes 2
#                                             about 8 minutes
#
# Options:
#   --soak-minutes N   length of the soak (default 10)
#   --chaos-minutes N  length of the chaos run (default 60;
#                      tests/reliability/test_chaos.py)
#   --only "T ..."     run only these test files (camera_faults control_load
#                      lifecycle clock_steps resources soak chaos)
#   --out DIR          logs, result rows and sanitizer reports (default
#                      run/reliability/)
#   --report FILE      the report written (default docs/RELIABILITY.md)
#   --timeout SECONDS  limit of each test file (default 1500; the soak gets
#                      its minutes on top): a file that hangs is stopped,
#                      counted as failed, and the runs go on
#
# Settings (environment): OSTREL_BUILD_DIR, the build run (default build/;
# may be a sanitizer build), and OSTREL_JOBS as for every script
# (scripts/lib.sh); OSTREL_RELIABILITY_QUICK=1 leaves out the slowest case
# (the whole camera back-off sequence, about a minute; scripts/test.sh sets
# it).
# ASAN_OPTIONS, UBSAN_OPTIONS and TSAN_OPTIONS are passed on, with reports
# written to files: a report from any process fails the run and is printed.
#
# A test file's log is printed when it fails. Whatever a file leaves running
# in its network namespace (after a time-out, say) is killed and fails it.
# Exit status 1 when any test failed (the report is written all the same).
. "$(dirname "$0")/lib.sh"
soak=10
chaos=60
only="camera_faults control_load lifecycle clock_steps resources soak chaos"
out=$root/run/reliability
report=$root/docs/RELIABILITY.md
limit=1500
while [ $# -gt 0 ]; do
    case $1 in
        --soak-minutes) soak=$2; shift 2 ;;
        --chaos-minutes) chaos=$2; shift 2 ;;
        --only)         only=$2; shift 2 ;;
        --out)          out=$2; shift 2 ;;
        --report)       report=$2; shift 2 ;;
        --timeout)      limit=$2; shift 2 ;;
        *) echo "usage: $0 [--soak-minutes N] [--chaos-minutes N] [--only \"TESTS\"] [--out DIR]" \
                "[--report FILE] [--timeout SECONDS]" >&2
           exit 2 ;;
    esac
done
build=$base
out=$(abspath "$out")
report=$(abspath "$report")

configure_simulators "$build"
cmake --build "$build" --target Ostrel ostrel-camsim ostrel-schedsim ostrel-viewer -j "$jobs"

# Only what a run writes is removed: --out may name any directory.
mkdir -p "$out"
rm -f "$out"/*.log "$out"/*.netns "$out/results.jsonl" "$out/runs.txt" "$out/chaos.csv"
# Sanitizer reports: the daemon points its standard error at /dev/null, so
# they go to files. The tests' harness moves log_path into each test's own
# directory and fails the test on a report; reliability.py copies them here.
# Reports of processes outside a test land here directly.
reports=$build/sanitizer/reliability
rm -rf "$reports"
mkdir -p "$reports"
export ASAN_OPTIONS="${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}:log_path=$reports/asan" \
    UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}:log_path=$reports/ubsan" \
    TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:suppressions=$root/scripts/tsan-suppressions.txt}:log_path=$reports/tsan" \
    OSTREL_SANITIZER_REPORTS="$reports"
# The test harness (tests/harness/) finds the build's programs.
export PYTHONPATH="$root/tests" OSTREL_BUILD_DIR="$build" \
    OSTREL_RELIABILITY_RESULTS="$out/results.jsonl" OSTREL_SOAK_MINUTES="$soak" \
    OSTREL_CHAOS_MINUTES="$chaos" OSTREL_CHAOS_SAMPLES="$out/chaos.csv"
: > "$out/results.jsonl"
: > "$out/runs.txt"

# sweep NETNS_FILE: kills, by pid, whatever still runs in the network
# namespace named in the file (each test file has its own, so everything in
# it was started by that file); prints the pids, returns 1 if there were any.
sweep() {
    ns=$(cat "$1" 2>/dev/null) || return 0
    [ -n "$ns" ] || return 0
    left=""
    for p in /proc/[0-9]*; do
        [ "$(readlink "$p/ns/net" 2>/dev/null)" = "$ns" ] && left="$left ${p#/proc/}"
    done
    [ -n "$left" ] || return 0
    printf "\n   still running in its network namespace, killed:%s\n" "$left"
    # What each one was, for the log: its command line, state and parent.
    for p in $left; do
        printf '   %s: %s (%s, parent %s)\n' "$p" \
            "$(tr '\0' ' ' < "/proc/$p/cmdline" 2>/dev/null)" \
            "$(awk '/^State:/ { print $2, $3 }' "/proc/$p/status" 2>/dev/null)" \
            "$(awk '/^PPid:/ { print $2 }' "/proc/$p/status" 2>/dev/null)"
    done
    # shellcheck disable=SC2086
    kill -KILL $left 2>/dev/null || true
    return 1
}

status=0
start_all=$(date +%s)
for t in $only; do
    echo "== $t"
    secs=$limit
    [ "$t" = soak ] && secs=$(awk -v l="$limit" -v m="$soak" 'BEGIN { printf "%d", l + m * 60 }')
    [ "$t" = chaos ] && secs=$(awk -v l="$limit" -v m="$chaos" 'BEGIN { printf "%d", l + m * 60 }')
    t0=$(date +%s)
    rc=0
    # timeout ends the test file and its process group; the daemons have
    # their own sessions and are swept up by their namespace afterwards.
    # shellcheck disable=SC2016 # expanded by the inner shell
    OSTREL_RELIABILITY_TEST=$t timeout -k 30 "$secs" tests/sim/ostrel-netns /bin/sh -c \
        'readlink /proc/self/ns/net > "$1"; shift; exec "$@"' sh "$out/$t.netns" \
        python3 -B "tests/reliability/test_$t.py" -v > "$out/$t.log" 2>&1 || rc=$?
    t1=$(date +%s)
    summary=$(grep -E '^(OK|FAILED)' "$out/$t.log" | tail -n 1)
    if [ "$rc" = 124 ] || [ "$rc" = 137 ]; then
        summary="stopped after the limit of $secs s"
    elif [ -z "$summary" ]; then
        # No unittest summary: the file ran no test at all, or died.
        summary="did not finish (exit $rc)"
        rc=1
    fi
    sweep "$out/$t.netns" >> "$out/$t.log" || {
        [ "$rc" != 0 ] || summary="$summary; left processes running"
        rc=1
    }
    if [ "$rc" != 0 ]; then
        status=1
        echo "-- $out/$t.log"
        cat "$out/$t.log"
    fi
    printf '%s\t%s\t%s\n' "$t" "$((t1 - t0))" "$summary" >> "$out/runs.txt"
    echo "   $summary, $((t1 - t0)) s"
done
end_all=$(date +%s)

found=$(find "$reports" -type f | sort)
if [ -n "$found" ]; then
    echo "== sanitizer reports"
    for f in $found; do
        echo "-- $f"
        cat "$f"
    done
    printf 'sanitizer\t0\t%s report files in %s\n' "$(echo "$found" | wc -l)" "$reports" \
        >> "$out/runs.txt"
    status=1
fi

mkdir -p "$(dirname "$report")"
python3 -B tests/reliability/report.py "$out" "$soak" "$((end_all - start_all))" "$build" \
    "$chaos" "$report" > "$report.tmp"
mv "$report.tmp" "$report"
echo "report: $report (logs in $out)"
exit $status
