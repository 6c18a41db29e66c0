"""The harness from a shell script (scripts/demo.sh, bench/profile.sh):

  python3 -m harness path PROGRAM            the path of Ostrel, ostrel-camsim,
                                             ostrel-schedsim or ostrel-viewer
  python3 -m harness config [--channel N] [--comment TEXT] [--states-dir DIR]
                            WORK [KEY=VALUE...]
                                             the working directory WORK with
                                             conf/Config.txt for channel N (and
                                             Directory.Conf naming DIR)
  python3 -m harness redirect CONTROL_PORT CAMERA_PORT
                                             the daemon's camera connection to
                                             the simulated camera (on eth0)
  python3 -m harness wait-listening ADDR PORT
  python3 -m harness wait-file PATH          until PATH exists and is not empty
  python3 -m harness wait-gone PID [--limit SECONDS]
  python3 -m harness stop PID                SIGTERM, then until it has ended
  python3 -m harness listen-exec ADDR:PORT COMMAND [ARG...]
                                             listens on ADDR:PORT (of this
                                             host's network) and runs COMMAND
                                             with the socket as descriptor 3

Exit status 1 (with the reason on standard error) when a wait gives up.
"""

import argparse
import os
import signal
import socket
import sys

from . import files, paths, procs, wait, wire


def main(argv):
    ap = argparse.ArgumentParser(prog="python3 -m harness", description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = ap.add_subparsers(dest="cmd", required=True)
    p = sub.add_parser("path")
    p.add_argument("program", choices=["Ostrel", "ostrel-camsim", "ostrel-schedsim", "ostrel-viewer"])
    p = sub.add_parser("config")
    p.add_argument("work")
    p.add_argument("--channel", type=int, default=1)
    p.add_argument("--comment", default="written by the test harness")
    p.add_argument("--states-dir")
    p.add_argument("values", nargs="*", metavar="KEY=VALUE")
    p = sub.add_parser("redirect")
    p.add_argument("control_port", type=int)
    p.add_argument("camera_port", type=int)
    p = sub.add_parser("wait-listening")
    p.add_argument("addr")
    p.add_argument("port", type=int)
    p = sub.add_parser("wait-file")
    p.add_argument("path")
    p = sub.add_parser("wait-gone")
    p.add_argument("pid", type=int)
    p.add_argument("--limit", type=float, default=wait.STOP_LIMIT)
    p = sub.add_parser("stop")
    p.add_argument("pid", type=int)
    p = sub.add_parser("listen-exec")
    p.add_argument("addr")
    p.add_argument("command", nargs=argparse.REMAINDER)
    a = ap.parse_args(argv)

    if a.cmd == "path":
        path = {"Ostrel": paths.BIN, "ostrel-camsim": paths.CAMSIM, "ostrel-schedsim": paths.SCHEDSIM,
                "ostrel-viewer": paths.VIEWER}[a.program]
        if not path:
            sys.exit("harness: %s is not found in %s" % (a.program, paths.BUILD_DIR))
        print(path)
    elif a.cmd == "config":
        values = dict(v.split("=", 1) for v in a.values)
        files.make_workdir(a.work)
        files.write_config(a.work, a.channel, comment=a.comment, **values)
        if a.states_dir:
            os.makedirs(a.states_dir, exist_ok=True)
            files.write_directory_conf(a.work, a.states_dir)
    elif a.cmd == "redirect":
        wire.redirect_camera(a.control_port, a.camera_port)
    elif a.cmd == "wait-listening":
        wait.wait_for(lambda: wait.is_listening(a.addr, a.port), "%s:%d to listen" % (a.addr, a.port))
    elif a.cmd == "wait-file":
        wait.wait_for(lambda: os.path.exists(a.path) and os.path.getsize(a.path) > 0, a.path)
    elif a.cmd == "wait-gone":
        wait.wait_gone(a.pid, a.limit)
    elif a.cmd == "stop":
        procs.stop_daemon(a.pid, signal.SIGTERM)
    elif a.cmd == "listen-exec":
        listen_exec(a.addr, a.command)


def listen_exec(addr, command):
    """Replaces this process with command, holding a socket listening on addr
    as descriptor 3: the socket is made here, on this host's network, so that
    a command that enters a network namespace still serves this host."""
    host, _, port = addr.rpartition(":")
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        s.bind((host, int(port)))
    except (OSError, ValueError) as e:
        sys.exit("harness: cannot listen on %s: %s" % (addr, e))
    s.listen(64)
    if s.fileno() != 3:
        os.dup2(s.fileno(), 3)
    os.set_inheritable(3, True)
    os.execvp(command[0], command)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except AssertionError as exc:
        sys.exit("harness: %s" % exc)
