"""RelayCase: the unittest fixture of the end-to-end and reliability tests."""

import contextlib
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from . import files, paths, procs
from .wait import START_LIMIT, STOP_LIMIT, wait_for, wait_gone
from .wire import (CAMERA_PORT, CONTROL_PORT, MYIP, OTHER_CAMERA_IP, FOREIGN_IP, add_addresses, login,
                   redirect_camera)


def setup_namespace():
    """Once per test file: extra addresses and the camera redirect."""
    missing = [n for n, p in (("the daemon", paths.BIN), ("the camera simulator", paths.CAMSIM),
                              ("the schedule server simulator", paths.SCHEDSIM)) if not p]
    if missing:
        raise unittest.SkipTest("not found in %s: %s (set OSTREL_BUILD_DIR)"
                                % (paths.BUILD_DIR, ", ".join(missing)))
    add_addresses(OTHER_CAMERA_IP, FOREIGN_IP)
    redirect_camera()


class RelayCase(unittest.TestCase):
    """A fresh working directory per test, with helpers that start the
    simulators and the daemon and stop whatever is left at the end."""

    channel = 1

    @classmethod
    def setUpClass(cls):
        if not paths.BIN:
            raise unittest.SkipTest("the daemon is not found in %s" % paths.BUILD_DIR)

    def setUp(self):
        self.work = files.make_workdir(tempfile.mkdtemp(prefix="ostrel-e2e-"))
        self.procs = procs.Processes()
        self.children = self.procs.children
        self.daemon_pids = self.procs.daemon_pids
        self.write_config()
        self._watch_sanitizers()
        self.addCleanup(self._cleanup)

    def _watch_sanitizers(self):
        # In sanitizer builds the detached daemon's standard error is
        # /dev/null: reports go to files instead, and a test fails on any.
        self.sanitizer_dir = self.path("sanitizer")
        os.makedirs(self.sanitizer_dir)
        saved = {}
        for var in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            saved[var] = os.environ.get(var)
            opts = [o for o in (saved[var] or "").split(":") if o and not o.startswith("log_path=")]
            opts.append("log_path=" + os.path.join(self.sanitizer_dir, var.split("_")[0].lower()))
            os.environ[var] = ":".join(opts)

        def restore():
            for var, value in saved.items():
                if value is None:
                    os.environ.pop(var, None)
                else:
                    os.environ[var] = value
        self.addCleanup(restore)

    def _cleanup(self):
        # Daemons still running get the operator's stop, so that every test
        # also ends in an orderly shutdown (and the sanitizers' exit checks).
        self.procs.stop_all()
        reports = sorted(os.listdir(self.sanitizer_dir))
        if reports:
            with open(os.path.join(self.sanitizer_dir, reports[0]), errors="replace") as f:
                first = f.read(6000)
            raise AssertionError("sanitizer reports %s in %s:\n%s" % (reports, self.work, first))
        if os.environ.get("OSTREL_E2E_KEEP"):
            print("kept", self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    # configuration ------------------------------------------------------
    def write_config(self, channel=None, drop=(), **values):
        """conf/Config.txt for the channel; values override keys, drop
        leaves keys out."""
        files.write_config(self.work, self.channel if channel is None else channel, drop,
                           comment="written by the end-to-end tests", **values)

    def write_directory_conf(self, states_dir):
        files.write_directory_conf(self.work, states_dir)

    # simulators ---------------------------------------------------------
    def start_camsim(self, *args, addr=MYIP, port=CAMERA_PORT, pictures=8, sizes=None, name="cam"):
        """A simulated camera sending our own pictures (its own test pattern
        when pictures is None); returns (our pictures, record path)."""
        _, pics, record = procs.start_camsim(self.procs, *args, addr=addr, port=port, work=self.work,
                                             pictures=pictures, sizes=sizes, name=name)
        return pics, record

    def start_schedsim(self, *args, name="sched"):
        record = self.path(name + ".rec")
        procs.start_schedsim(self.procs, *args, record=record, work=self.work)
        return record

    def spawn(self, argv, **kw):
        return self.procs.spawn(argv, cwd=self.work, **kw)

    # the daemon ---------------------------------------------------------
    def run_ostrel(self, *args, env=None, stdin=b"", argv0=None, timeout=30):
        """Runs the program to its end (a launcher's view): (stdout, stderr)."""
        full_env = {k: v for k, v in os.environ.items()
                    if k not in ("REQUEST_METHOD", "QUERY_STRING", "CONTENT_LENGTH")}
        full_env.update(env or {})
        argv = [argv0 or paths.BIN] + list(args)
        p = subprocess.run(argv, cwd=self.work, env=full_env, input=stdin, capture_output=True,
                           timeout=timeout, executable=paths.BIN)
        self.assertEqual(p.returncode, 0, "main always ends with 0")
        return p.stdout, p.stderr

    def states_path(self, name="1"):
        return files.states_path(self.work, name)

    def read_states(self, name="1", path=None):
        """The states file as a dict of element texts, None when absent."""
        return files.read_states(path or self.states_path(name))

    def wait_states(self, state, name="1", path=None, limit=START_LIMIT):
        return wait_for(lambda: files.complete_states(path or self.states_path(name), state),
                        "states %s" % state, limit)

    def start_forking(self, name="1", env=None):
        """-StartUp: checks the launcher answer, returns the daemon's pid."""
        out, err = self.run_ostrel("-StartUp", name, env=env)
        self.assertEqual(out, files.success_answer(CONTROL_PORT), err)
        # The states file names the port before the threads exist; the pid
        # file is written once they run.
        return procs.adopt_forked(self.procs, self.work, self.states_path(name), name)

    def start_channel(self, *cam_args, fps="30", **cam_kw):
        """The simulated camera, a forking daemon and a viewer logged in:
        (pid, the camera's pictures, its request record)."""
        pictures, record = self.start_camsim("--fps", fps, *cam_args, **cam_kw)
        pid = self.start_forking("1")
        login()
        return pid, pictures, record

    @contextlib.contextmanager
    def row(self, msg=None, **params):
        """One row of a table test: a subTest after which whatever the row
        started is stopped, so that the next row finds the ports free."""
        with self.subTest(msg, **params):
            try:
                yield
            finally:
                self.procs.stop_all()

    def stop_daemons(self):
        """Stops every daemon the test started (between the rows of a
        table, so that the next row finds the ports free)."""
        while self.daemon_pids:
            try:
                self.stop_daemon(self.daemon_pids[0])
            except ProcessLookupError:
                pass  # it ended by itself: the test has said so already
            self.daemon_pids.pop(0)

    def wait_pid_file(self, pid, channel):
        procs.wait_pid_file(self.work, pid, channel)

    def start_foreground(self, name="1"):
        return procs.start_foreground(self.procs, self.work, name, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE)

    def wait_gone(self, pid, limit=STOP_LIMIT):
        wait_gone(pid, limit)

    def stop_daemon(self, pid, sig=signal.SIGTERM):
        procs.stop_daemon(pid, sig)

    def log_text(self):
        return files.log_text(self.work, self.channel)

    def wait_log(self, line, limit=START_LIMIT):
        return wait_for(lambda: line in self.log_text(), "log line %r" % line, limit)
