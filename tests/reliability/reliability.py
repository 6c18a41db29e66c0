"""Shared pieces of the reliability runs: the daemon under faults and load.

Builds on the test harness (tests/harness/): the same private network
namespace, camera redirect, simulators and working directory per test as
the end-to-end tests. Adds what a long unattended run cares about:

- the daemon's open descriptors (/proc/<pid>/fd) and resident memory
  (/proc/<pid>/status VmRSS) before and after a load, with the "after" value
  waited for (descriptors are closed by threads that may still be finishing a
  connection), never slept for;
- the files the daemon writes (states file, pid file, logs) checked for
  truncation and malformed content;
- one result row per tried fault or load, appended as a JSON line to the file
  named by OSTREL_RELIABILITY_RESULTS, from which scripts/reliability.sh
  writes docs/RELIABILITY.md.

Every run is bounded: each wait has a deadline and each load a count.
"""

import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import xml.etree.ElementTree as ET

import harness
from harness import MYIP, CONTROL_PORT, CAMERA_PORT, FOREIGN_IP, alive, wait_for  # noqa: F401

RESULTS = os.environ.get("OSTREL_RELIABILITY_RESULTS", "")
# Where a test's sanitizer reports are copied for the run's caller to list
# (scripts/reliability.sh: <build>/sanitizer/reliability/); the test fails
# on them in any case.
SANITIZER_REPORTS = os.environ.get("OSTREL_SANITIZER_REPORTS", "")
VIEWER = harness.VIEWER

# Slack for "returns to its level": a descriptor or two may belong to a
# connection a control thread is just closing, and the allocator keeps some
# freed pages resident. Anything beyond this is a leak over a long run.
FD_SLACK = 2
RSS_SLACK_KB = 16 * 1024


def _sanitized(path):
    # A sanitizer build holds freed memory in quarantine and shadow pages,
    # so its resident size says nothing about leaks (LeakSanitizer checks
    # those at the daemon's exit instead).
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError:
        return False
    return b"__asan_init" in data or b"__tsan_init" in data


SANITIZED = _sanitized(harness.BIN) if harness.BIN else False




LOG_LINE_RE = re.compile(r"^\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\]")
LOG_STAMP_INSIDE_RE = re.compile(r".\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\]")


LOG_LIMIT = 1048576  # a log generation's size limit


def prefill_log(path, size):
    """Writes whole, stamped log lines up to about size bytes, so that the
    daemon's log rotates soon after it starts."""
    line = time.strftime("[%Y/%m/%d %H:%M:%S]") + " prefilled by the test " + "x" * 60 + "\n"
    with open(path, "w") as f:
        f.write(line * (size // len(line)))


def log_sizes(case, channel=1):
    return [os.path.getsize(p) if os.path.exists(p) else 0
            for p in (case.path("log", "Ostrel_%02d_log%d.txt" % (channel, n)) for n in (0, 1))]


class FakeClock:
    """Steps the wall clock of the daemon alone, never the machine's: the
    daemon runs with Debian's libfaketime preloaded, its monotonic clock
    left alone (FAKETIME_DONT_FAKE_MONOTONIC), and an offset file that the
    test rewrites and libfaketime reads on every call (FAKETIME_NO_CACHE).
    The preload is inherited through the daemon's forks."""

    LIB = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"

    _why_not = ()

    @classmethod
    def why_not(cls):
        """None when the clock can be stepped, else the reason (asked once:
        the daemon is run with the preload and must work)."""
        if cls._why_not == ():
            cls._why_not = cls._probe()
        return cls._why_not

    @classmethod
    def _probe(cls):
        if not os.path.exists(cls.LIB):
            return "libfaketime is not installed (scripts/setup.sh installs it): wall-clock steps left out"
        env = dict(os.environ, LD_PRELOAD=cls.LIB, FAKETIME="+0", FAKETIME_DONT_FAKE_MONOTONIC="1")
        if SANITIZED:
            env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0:log_path=stderr"
        scratch = tempfile.mkdtemp(prefix="ostrel-faketime-")
        try:
            p = subprocess.run([harness.BIN, "-GetConfigTemplate"], env=env, capture_output=True, timeout=60,
                               cwd=scratch)
        finally:
            shutil.rmtree(scratch, ignore_errors=True)
        if b"Sanitizer" in p.stderr or b"runtime does not come first" in p.stderr or not p.stdout:
            # Only sanitizer builds have a runtime that may refuse it.
            if not SANITIZED:
                raise AssertionError("the daemon does not run with libfaketime: %r" % p.stderr[:500])
            return ("wall-clock steps left out: this sanitizer build does not run with libfaketime "
                    "preloaded (%s)" % p.stderr.decode("latin-1").strip().splitlines()[:1])
        return None

    @classmethod
    def usable(cls):
        return cls.why_not() is None

    def __init__(self, case):
        self.case = case
        self.path = case.path("faketime.offset")
        self.set(0)

    def set(self, seconds):
        """Moves the daemon's wall clock to the machine's plus seconds.
        Written whole and renamed: libfaketime never reads half a file."""
        tmp = self.path + ".tmp"
        with open(tmp, "w") as f:
            f.write("%+d\n" % seconds)
        os.rename(tmp, self.path)

    def env(self):
        env = {"LD_PRELOAD": self.LIB, "FAKETIME_DONT_FAKE_MONOTONIC": "1",
               "FAKETIME_TIMESTAMP_FILE": self.path, "FAKETIME_NO_CACHE": "1"}
        if SANITIZED:
            # AddressSanitizer wants its runtime first among the libraries;
            # libfaketime only wraps time calls, which it does not need.
            env["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return env

    def start_forking(self, name="1"):
        """-StartUp with the faked clock; returns the daemon's pid."""
        case = self.case
        out, err = case.run_ostrel("-StartUp", name, env=self.env())
        case.assertEqual(out, harness.success_answer(CONTROL_PORT), err)
        pid = int(case.wait_states("NormalOperating", name)["ProcessId"])
        case.daemon_pids.append(pid)
        case.wait_pid_file(pid, int(name))
        return pid


def fd_count(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError("no VmRSS for %d" % pid)


def record(what, count, outcome, before=None, after=None, note=""):
    """One row of the report. before/after: (fds, rss_kb) or None."""
    row = {"what": what, "count": count, "outcome": outcome, "note": note,
           "fds_before": before[0] if before else None, "rss_before": before[1] if before else None,
           "fds_after": after[0] if after else None, "rss_after": after[1] if after else None,
           "test": os.environ.get("OSTREL_RELIABILITY_TEST", "")}
    if RESULTS:
        with open(RESULTS, "a") as f:
            f.write(json.dumps(row) + "\n")


class Tally:
    """Thread-safe counter of outcomes by name."""

    def __init__(self):
        self._lock = threading.Lock()
        self.counts = {}

    def add(self, key, n=1):
        with self._lock:
            self.counts[key] = self.counts.get(key, 0) + n

    def total(self):
        with self._lock:
            return sum(self.counts.values())

    def text(self):
        with self._lock:
            return ", ".join("%s %d" % (k, v) for k, v in sorted(self.counts.items()))


def run_parallel(n, fn):
    """Runs fn(i) on n threads, all released together by a barrier; the
    first exception of any thread is raised here."""
    barrier = threading.Barrier(n)
    errors = []

    def body(i):
        try:
            barrier.wait(30)
            fn(i)
        except BaseException as exc:  # noqa: BLE001 - reported to the caller
            errors.append(exc)
    threads = [threading.Thread(target=body, args=(i,)) for i in range(n)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if errors:
        raise errors[0]


def status_of(data):
    """The status code of the first answer in data, or None when the daemon
    closed without answering."""
    if not data:
        return None
    m = re.match(rb"HTTP/1\.[01] (\d{3}) ", data)
    if not m:
        raise AssertionError("not an HTTP answer: %r" % data[:200])
    return int(m.group(1))


class ReliabilityCase(harness.RelayCase):
    """A relay test that also watches the daemon's resources and files."""

    threads = "2"  # the command line start's control-port thread count

    def _cleanup(self):
        # The harness stops what is left, then fails on sanitizer reports in
        # the test's own directory (kept in that case); copy them out.
        try:
            super()._cleanup()
        finally:
            if SANITIZER_REPORTS and os.path.isdir(self.sanitizer_dir):
                os.makedirs(SANITIZER_REPORTS, exist_ok=True)
                for name in os.listdir(self.sanitizer_dir):
                    shutil.copy(os.path.join(self.sanitizer_dir, name),
                                os.path.join(SANITIZER_REPORTS, "%s.%s" % (self.id(), name)))

    def start_streaming(self, *cam_args, sizes=None, pictures=8):
        """Camera simulator plus a forking daemon with a viewer logged in and
        the first picture relayed; returns the daemon's pid."""
        self.start_camsim("--fps", "50", *cam_args, pictures=pictures, sizes=sizes)
        pid = self.start_forking("1")
        self.assertEqual(harness.login().body, b"LOGIN_SUCCESS:1:\r\n")
        self.wait_picture()
        return pid

    def wait_picture(self, limit=60.0):
        """Pulls until a whole picture comes (the viewer's polling)."""
        def one():
            a = harness.get_image()
            if a.header("Content-Type") == "image/jpeg":
                harness.split_stamp(a.body)
                return a
            self.assertEqual(a.body, b"ERROR_TRANSLATOR_RECEIVE:")
            return None
        return wait_for(one, "a relayed picture", limit)

    def pull(self, n, limit=120.0):
        """n whole pictures with rising sequence numbers."""
        seqs = []
        deadline = time.monotonic() + limit
        while len(seqs) < n:
            self.assertLess(time.monotonic(), deadline, "only %d of %d pictures" % (len(seqs), n))
            seq, _, _ = harness.split_stamp(self.wait_picture().body)
            if seqs:
                self.assertGreater(seq, seqs[-1])
            seqs.append(seq)
        return seqs

    def stop_daemons(self):
        """Stops every daemon the test started: between the rows of a table,
        so that the next row finds the ports free even after a failure."""
        while self.daemon_pids:
            try:
                self.stop_daemon(self.daemon_pids[0])
            except ProcessLookupError:
                pass  # it ended by itself: the test has said so already
            self.daemon_pids.pop(0)

    def usage(self, pid):
        return fd_count(pid), rss_kb(pid)

    def settle(self, pid, before, what):
        """Waits for the descriptors to come back to their level and checks
        the memory; returns the "after" usage."""
        def back():
            n = fd_count(pid)
            return n <= before[0] + FD_SLACK and n
        try:
            wait_for(back, "descriptors back to %d after %s" % (before[0], what), limit=60.0)
        except AssertionError:
            raise AssertionError("%s: descriptors %d before, %d after: %s" % (
                what, before[0], fd_count(pid), sorted(os.listdir("/proc/%d/fd" % pid))))
        after = self.usage(pid)
        if SANITIZED:
            return after
        self.assertLessEqual(after[1], before[1] + RSS_SLACK_KB,
                             "%s: resident memory %d kB before, %d kB after" % (what, before[1], after[1]))
        return after

    def check_files(self, pid=None, states_expected=True, stopped=False, name="1"):
        """Nothing the daemon writes is truncated or malformed."""
        if states_expected:
            with open(self.states_path(name)) as f:
                text = f.read()
            root = ET.fromstring(text)
            self.assertEqual(root.tag, "PPD.States", text)
            if pid is not None:
                self.assertEqual(root.findtext("ProcessId"), str(pid), text)
        pid_file = self.path("mem", "Ostrel_01.pid")
        if os.path.exists(pid_file):
            with open(pid_file) as f:
                content = f.read()
            self.assertRegex(content, r"^\d+$", "pid file %r" % content)
        for n in (0, 1):
            path = self.path("log", "Ostrel_01_log%d.txt" % n)
            if not os.path.exists(path):
                continue
            with open(path, "rb") as f:
                data = f.read()
            self.assertNotIn(b"\0", data, "NUL bytes in " + path)
            text = data.decode("latin-1")
            if stopped:
                self.assertTrue(text == "" or text.endswith("\n"), "last line of %s cut short" % path)
            # Stamped lines open with the whole stamp; messages written
            # without a stamp (the start separator, multi-line dumps) are
            # continuation lines. Two writers interleaved would show as a
            # stamp inside a line, a cut write as a broken stamp.
            for i, line in enumerate(text.split("\n")):
                if line.startswith("[") and line[1:2].isdigit():
                    self.assertRegex(line, LOG_LINE_RE, "%s:%d: broken stamp" % (path, i + 1))
                self.assertIsNone(LOG_STAMP_INSIDE_RE.search(line),
                                  "%s:%d: a stamp inside a line: %r" % (path, i + 1, line))

    def finish(self, pid, what, count, outcome, before, note="", name="1"):
        """Common tail of a load: daemon alive, resources back, files whole,
        one report row."""
        self.assertTrue(alive(pid), "%s: the daemon ended" % what)
        after = self.settle(pid, before, what)
        self.check_files(pid, name=name)
        record(what, count, outcome, before, after, note)


def raw_exchange(raw, timeout=40.0, shut_write=False):
    """Sends raw bytes, reads to the close; returns the bytes read (b"" when
    the daemon closed or reset without answering)."""
    sock = harness.connect(timeout=timeout)
    try:
        try:
            sock.sendall(raw)
            if shut_write:
                sock.shutdown(socket.SHUT_WR)
        except (BrokenPipeError, ConnectionResetError):
            pass  # the daemon may answer and close before all is sent
        chunks = []
        while True:
            try:
                data = sock.recv(65536)
            except ConnectionResetError:
                break
            if not data:
                break
            chunks.append(data)
        return b"".join(chunks)
    finally:
        sock.close()
