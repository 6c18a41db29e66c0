#!/bin/sh
# Profiles one daemon relaying 30 fps of 18 KB pictures to one viewer:
# perf samples of the daemon (call graphs) and a count of its system calls.
#
#   bench/profile.sh [BUILD_DIR [OUT_DIR]]    (default: the bench build of
#                                             scripts/lib.sh, $OSTREL_BUILD_DIR-bench
#                                             or build-bench/; run/profile/)
#
# Needs perf (linux-perf) and strace; builds nothing (run scripts/bench.sh
# or build the targets Ostrel ostrel-camsim ostrel-viewer first).
. "$(dirname "$0")/../scripts/lib.sh"
build=$(abspath "${1:-$base-bench}")
out=$(abspath "${2:-run/profile}")
[ -x "$build/Ostrel" ] || die "no daemon in $build (run scripts/bench.sh first)"
mkdir -p "$out"

if [ "${OSTREL_PROFILE_INSIDE:-}" != 1 ]; then
    OSTREL_PROFILE_INSIDE=1 exec tests/sim/ostrel-netns /bin/sh "$root/bench/profile.sh" "$build" "$out"
fi

# The test harness (tests/harness/) writes the configuration, finds the
# programs of the build and waits for them.
export PYTHONPATH="$root/tests" OSTREL_BUILD_DIR="$build"
harness() { python3 -B -m harness "$@"; }
work=$out/work
rm -rf "$work"
harness config --comment "profiled channel" --states-dir "$work/states" "$work" \
    encoder_port=9000 translator_connect_port=9 translator_calarm_rec_postterm=86400
harness redirect 9000 9001

pids=""
trap 'for p in $pids; do kill "$p" 2>/dev/null || true; done; wait' EXIT
"$(harness path ostrel-camsim)" --listen 192.0.2.1:9001 --fps 30 --quiet &
pids="$pids $!"
(cd "$work" && exec "$build/Ostrel" -StartUp_NonDeamon 1 >/dev/null 2>&1) &
daemon=$!
pids="$pids $daemon"
harness wait-listening 192.0.2.1 9000
"$(harness path ostrel-viewer)" --control 192.0.2.1:9000 --bind 192.0.2.1:30000 --seconds 22 --quiet \
    > "$out/viewer.txt" &
pids="$pids $!"
sleep 2
perf record -q -e cpu-clock -F 4999 --call-graph dwarf,16384 -o "$out/perf.data" -p "$daemon" -- sleep 8 2>/dev/null
strace -c -f -p "$daemon" -o "$out/strace.txt" &
st=$!
sleep 6
kill -INT $st
wait $st 2>/dev/null || true
wait_viewer=$(echo "$pids" | awk '{print $NF}')
wait "$wait_viewer" || true
perf report -i "$out/perf.data" --stdio --no-children --sort symbol --percent-limit 1.5 \
    > "$out/perf-self.txt" 2>/dev/null
perf report -i "$out/perf.data" --stdio --children --sort symbol --percent-limit 3 -g none \
    > "$out/perf-children.txt" 2>/dev/null
echo "== viewer"; cat "$out/viewer.txt"
echo "== system calls of the daemon (6 s)"; head -n 25 "$out/strace.txt"
echo "== perf, self time"; grep -v '^#' "$out/perf-self.txt" | grep '%' | head -n 25
echo "== perf, with callees"; grep -v '^#' "$out/perf-children.txt" | grep '%' | head -n 30
