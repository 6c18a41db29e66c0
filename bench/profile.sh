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

work=$out/work
rm -rf "$work"
mkdir -p "$work/conf" "$work/log" "$work/mem" "$work/states"
for kv in translator_tarndatatype=Ostrel encoder_ip=192.0.2.1 encoder_port=9000 \
          translator_connect_ip=192.0.2.1 translator_connect_port=9 translator_connect_camerano=1 \
          channel_authentic_switch=0 translator_calarm_rec_postterm=86400; do
    echo "${kv%%=*}_0001=${kv#*=}"
done > "$work/conf/Config.txt"
printf '<Directory.Conf>\n <StatesDir>%s/states</StatesDir>\n</Directory.Conf>\n' "$work" > "$work/Directory.Conf"
"$root/tests/sim/ostrel-camera-redirect" 192.0.2.1 9000 192.0.2.1 9001

pids=""
trap 'for p in $pids; do kill "$p" 2>/dev/null || true; done; wait' EXIT
"$build/tests/sim/ostrel-camsim" --listen 192.0.2.1:9001 --fps 30 --quiet &
pids="$pids $!"
(cd "$work" && exec "$build/Ostrel" -StartUp_NonDeamon 1 >/dev/null 2>&1) &
daemon=$!
pids="$pids $daemon"
tries=0
until ss -Hltn 'sport = :9000' | grep -q 9000; do
    tries=$((tries + 1)); [ $tries -lt 200 ] || { echo "profile: daemon did not start" >&2; exit 1; }
    sleep 0.05
done
"$build/viewer/ostrel-viewer" --control 192.0.2.1:9000 --bind 192.0.2.1:30000 --seconds 22 --quiet \
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
