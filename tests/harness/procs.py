"""Starting and stopping the daemon and its simulators.

A Processes object owns what one test, benchmark run or demo started: the
children it spawned and the forked daemons it was told about. stop_all()
ends them all: daemons with the operator's stop (SIGTERM, then waiting for
the orderly shutdown), children with SIGTERM and, past a limit, SIGKILL.
"""

import os
import signal
import subprocess
import zlib

from . import paths
from .files import complete_states, make_pictures, pid_file, pid_file_holds
from .wait import START_LIMIT, STOP_LIMIT, is_listening, wait_for, wait_gone
from .wire import CAMERA_PORT, CONTROL_PORT, MYIP, SCHED_PORT


class Processes:
    def __init__(self):
        self.children = []      # Popen objects, in start order
        self.daemon_pids = []   # forked daemons (not our children)

    def spawn(self, argv, **kw):
        proc = subprocess.Popen(argv, **kw)
        self.children.append(proc)
        return proc

    def stop_all(self, child_limit=10):
        """Stops everything; raises AssertionError when a daemon does not
        end within STOP_LIMIT after its SIGTERM (it is then killed)."""
        failure = None
        for pid in self.daemon_pids:
            try:
                stop_daemon(pid)
            except ProcessLookupError:
                pass
            except AssertionError as exc:
                os.kill(pid, signal.SIGKILL)
                failure = failure or exc
        self.daemon_pids.clear()
        # All at once: a daemon in the foreground takes a moment to stop.
        for proc in self.children:
            if proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
        for proc in reversed(self.children):
            try:
                proc.wait(child_limit)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        self.children.clear()
        if failure:
            raise failure


def stop_daemon(pid, sig=signal.SIGTERM, limit=STOP_LIMIT):
    """Signals the daemon and waits for it to end."""
    os.kill(pid, sig)
    wait_gone(pid, limit)


# ---------------------------------------------------------------- simulators

def start_camsim(procs, *args, addr=MYIP, port=CAMERA_PORT, work=None, pictures=8, sizes=None,
                 name="cam", **kw):
    """A simulated camera on addr:port, waited for until it listens; further
    options in args. With work, it runs there, records the requests in
    <work>/<name>.rec and sends `pictures` of our own pictures (written to
    <work>/<name>-pictures), or its own generated test pattern when
    pictures is None. Returns (proc, our pictures or None, record path or
    None)."""
    argv = [paths.CAMSIM, "--listen", "%s:%d" % (addr, port), "--quiet"]
    pics = record = None
    if work is not None:
        record = os.path.join(work, name + ".rec")
        argv += ["--record", record]
        if pictures is not None:
            directory = os.path.join(work, name + "-pictures")
            pics = make_pictures(directory, pictures, sizes=sizes, seed=zlib.crc32(name.encode()))
            argv += ["--images", directory]
    proc = procs.spawn(argv + list(args), cwd=work, **kw)
    wait_for(lambda: proc.poll() is not None or is_listening(addr, port),
             "the camera simulator on %s:%d" % (addr, port))
    _check_running(proc, "the camera simulator")
    return proc, pics, record


def start_schedsim(procs, *args, addr=MYIP, port=SCHED_PORT, record=None, work=None, **kw):
    """A simulated schedule server, waited for until it listens."""
    argv = [paths.SCHEDSIM, "--listen", "%s:%d" % (addr, port), "--quiet", "--no-stdout"]
    if record:
        argv += ["--record", record]
    proc = procs.spawn(argv + list(args), cwd=work, **kw)
    wait_for(lambda: proc.poll() is not None or is_listening(addr, port),
             "the schedule server simulator")
    _check_running(proc, "the schedule server simulator")
    return proc


def _check_running(proc, what):
    if proc.poll() is not None:
        raise AssertionError("%s ended at its start (exit %s)" % (what, proc.returncode))


# ----------------------------------------------------------------- the daemon

def daemon_argv(switch, name, binary=None):
    return [binary or paths.BIN, switch, str(name)]


def start_foreground(procs, work, name="1", states=None, port=CONTROL_PORT, binary=None,
                     limit=START_LIMIT, **kw):
    """-StartUp_NonDeamon in work, waited for until it has written its
    states file naming the port and its pid file (written once its threads
    run). states: the states file's path (default tmp.<name>.States in
    work). Returns the Popen object."""
    states = states or os.path.join(work, "tmp.%s.States" % name)
    proc = procs.spawn(daemon_argv("-StartUp_NonDeamon", name, binary), cwd=work, **kw)
    wait_for(lambda: proc.poll() is not None or
             (complete_states(states) or {}).get("Port") == str(port),
             "the foreground daemon to write its states file", limit)
    _check_running(proc, "the foreground daemon")
    wait_pid_file(work, proc.pid, int(name), limit)
    return proc


def wait_pid_file(work, pid, channel, limit=START_LIMIT):
    wait_for(lambda: pid_file_holds(work, channel, pid), "the pid file %s" % pid_file(work, channel), limit)


def adopt_forked(procs, work, states, name="1", limit=START_LIMIT):
    """After a forking start: the daemon's pid from its states file, once it
    runs (NormalOperating) and has written its pid file; the daemon is then
    stopped by procs.stop_all()."""
    s = wait_for(lambda: complete_states(states, "NormalOperating"), "states NormalOperating", limit)
    pid = int(s["ProcessId"])
    procs.daemon_pids.append(pid)
    wait_pid_file(work, pid, int(name), limit)
    return pid

