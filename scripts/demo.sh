#!/bin/sh
# The one-command demonstration: builds the relay, the viewer and the simulators,
# then, inside a private network namespace, runs a simulated camera, a
# simulated schedule server, the relay daemon (started the way a launcher
# starts it) and a viewer, shows what happened and stops everything.
#
#   scripts/demo.sh            as root, or as a user where user namespaces
#                              are allowed
#
# Settings (environment): OSTREL_BUILD_DIR and OSTREL_JOBS as for every
# script (scripts/lib.sh), OSTREL_DEMO_DIR
# (default run/demo/), DEMO_SECONDS (viewer run time, default 6),
# DEMO_POSTTERM (post-alarm term in seconds, default 3), DEMO_FPS (camera
# pictures per second, default 25), DEMO_VIEW_SECONDS (then leave the
# viewer's browser view running this long; default 0, no view) and DEMO_VIEW
# (where the view listens on this host, default 127.0.0.1:8090).
#
# The view runs inside the demo's network namespace, but its listening
# socket is made on this host before the namespace is entered and handed
# down as descriptor 3, so a browser on this host reaches it.
. "$(dirname "$0")/lib.sh"
build=$base
run=$(abspath "${OSTREL_DEMO_DIR:-run/demo}")
export OSTREL_BUILD_DIR=$build OSTREL_DEMO_DIR=$run PYTHONPATH=$root/tests

# The test harness (tests/harness/) writes the configuration, finds the
# programs of the build, waits for them and stops the daemon.
harness() { python3 -B -m harness "$@"; }

if [ "${1:-}" != "--inside" ]; then
    if [ "$(id -u)" = 0 ]; then scripts/setup.sh; fi
    configure_simulators "$build"
    cmake --build "$build" --target Ostrel ostrel-camsim ostrel-schedsim ostrel-viewer -j "$jobs"

    # A fresh working directory laid out as the daemon expects it, closed
    # to other users (the daemon's files are mode 0666).
    rm -rf "$run"
    deploy/bin/ostrel-ctl init "$run" >/dev/null
    harness config --comment "Channel 1: the camera (encoder) address and port are also where the
control port listens; eth0 of the namespace is 192.0.2.1." \
        "$run" translator_calarm_rec_postterm="${DEMO_POSTTERM:-3}"
    if [ "${DEMO_VIEW_SECONDS:-0}" = 0 ]; then
        exec tests/sim/ostrel-netns /bin/sh "$root/scripts/demo.sh" --inside
    fi
    view=${DEMO_VIEW:-127.0.0.1:8090}
    # Listen on this host, then enter the namespace with the socket as fd 3.
    # (A view address that cannot be had: set DEMO_VIEW.)
    exec python3 -B -m harness listen-exec "$view" tests/sim/ostrel-netns /bin/sh "$root/scripts/demo.sh" --inside
fi

# ---- inside the namespace ----------------------------------------------
bin=$(harness path Ostrel)
camsim=$(harness path ostrel-camsim)
schedsim=$(harness path ostrel-schedsim)
viewer=$(harness path ostrel-viewer)
states=$run/states/1.States
cd "$run"

say() { printf '\n== %s\n' "$*"; }
pids=""
cleanup() {
    for p in $pids; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT INT TERM

say "network: eth0 $(ip -4 -o addr show eth0 | awk '{print $4}'), the daemon's own camera connection redirected to the simulated camera"
harness redirect 8080 8081

# Descriptor 3 (the view's listening socket, if any) is for the view alone.
"$camsim" --listen 192.0.2.1:8081 --fps "${DEMO_FPS:-25}" --quiet --record camera.rec 3>&- &
pids="$pids $!"
"$schedsim" --listen 192.0.2.1:80 --quiet --no-stdout --record schedule.rec 3>&- &
pids="$pids $!"
harness wait-listening 192.0.2.1 8081
harness wait-listening 192.0.2.1 80
echo "camera simulator on 192.0.2.1:8081, schedule server simulator on 192.0.2.1:80"

say "start: $bin -StartUp 1   (the launcher's answer follows)"
"$bin" -StartUp 1 3>&-
echo
harness wait-file mem/Ostrel_01.pid
daemon=$(cat mem/Ostrel_01.pid)

say "states file $states"
cat "$states"

say "viewer: ${DEMO_SECONDS:-6} s of pictures from the control port 192.0.2.1:8080"
echo "(pictures = relayed and checked, latency = camera send to viewer receive,"
echo " waits = polls answered 'not there yet')"
"$viewer" --control 192.0.2.1:8080 --bind 192.0.2.1:30000 \
    --seconds "${DEMO_SECONDS:-6}" --quiet --save last.jpg 3>&- || true
echo "(the last picture is in $run/last.jpg; camera requests: $(grep -c '^#REQUEST' camera.rec))"

if [ "${DEMO_VIEW_SECONDS:-0}" != 0 ]; then
    say "view: http://${DEMO_VIEW:-127.0.0.1:8090}/ for $DEMO_VIEW_SECONDS s; open it in a browser on this host"
    echo "(the live picture, the figures, the option text and the states file; also"
    echo " stream.mjpg, latest.jpg, figures.json and states there; Ctrl-C ends it early)"
    # Ctrl-C ends the view (which logs out) and the demo goes on to the stop.
    trap : INT
    "$viewer" --control 192.0.2.1:8080 --bind 192.0.2.1:40000 --serve-fd 3 \
        --states "$states" --seconds "$DEMO_VIEW_SECONDS" || true
    trap cleanup INT
    exec 3>&-
fi

say "schedule server: the stop request sent when the ${DEMO_POSTTERM:-3} s post-alarm term ran out"
if [ -s schedule.rec ]; then
    grep -a '^GET ' schedule.rec
else
    echo "(none)"
fi

say "operator's view: deploy/bin/ostrel-ctl -C $run status"
"$root/deploy/bin/ostrel-ctl" -C "$run" status || true

say "stop: delete the states file; the daemon notices within 5 s"
rm -f "$states"
if harness wait-gone "$daemon" 2>/dev/null; then
    echo "daemon $daemon has stopped"
else
    echo "daemon $daemon still runs; sending SIGTERM"
    harness stop "$daemon"
fi

say "log: last lines of $run/log/Ostrel_01_log0.txt (picture-not-yet-there lines left out)"
grep -v 'ERROR_TRANSLATOR_RECEIVE' log/Ostrel_01_log0.txt | tail -n 20
