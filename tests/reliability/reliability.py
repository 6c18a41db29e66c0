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

import collections
import itertools
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
from harness import MYIP, CONTROL_PORT, CAMERA_PORT, FOREIGN_IP, alive, run_parallel, wait_for  # noqa: F401

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
LOG_LIMIT = 1048576  # a log generation's size limit
LOG_LINE_RE = re.compile(r"^\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\]")
LOG_STAMP_INSIDE_RE = re.compile(r".\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\]")
IMAGE_REQUEST = b"GET /ptippreimg.cgi?get_image=1&img_user_id=1 HTTP/1.0\r\n\r\n"


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
        if cls._why_not != ():
            return cls._why_not
        cls._why_not = None
        if not os.path.exists(cls.LIB):
            cls._why_not = "libfaketime is not installed (scripts/setup.sh installs it): wall-clock steps left out"
            return cls._why_not
        scratch = tempfile.mkdtemp(prefix="ostrel-faketime-")
        try:
            env = dict(os.environ, FAKETIME="+0", **cls.env())
            env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":log_path=stderr"
            p = subprocess.run([harness.BIN, "-GetConfigTemplate"], env=env, capture_output=True, timeout=60,
                               cwd=scratch)
        finally:
            shutil.rmtree(scratch, ignore_errors=True)
        if b"Sanitizer" in p.stderr or b"runtime does not come first" in p.stderr or not p.stdout:
            # Only sanitizer builds have a runtime that may refuse it.
            if not SANITIZED:
                raise AssertionError("the daemon does not run with libfaketime: %r" % p.stderr[:500])
            cls._why_not = ("wall-clock steps left out: this sanitizer build does not run with libfaketime "
                            "preloaded (%s)" % p.stderr.decode("latin-1").strip().splitlines()[:1])
        return cls._why_not

    def __init__(self, case):
        self.path = case.path("faketime.offset")
        self.set(0)

    def set(self, seconds):
        """Moves the daemon's wall clock to the machine's plus seconds.
        Written whole and renamed: libfaketime never reads half a file."""
        with open(self.path + ".tmp", "w") as f:
            f.write("%+d\n" % seconds)
        os.rename(self.path + ".tmp", self.path)

    def env(self=None):
        """The daemon's environment for the clock (without an offset file
        when called on the class)."""
        env = {"LD_PRELOAD": FakeClock.LIB, "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        if self is not None:
            env.update(FAKETIME_TIMESTAMP_FILE=self.path, FAKETIME_NO_CACHE="1")
        if SANITIZED:
            # AddressSanitizer wants its runtime first among the libraries;
            # libfaketime only wraps time calls, which it does not need.
            env["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return env


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


class Tally(collections.Counter):
    """Outcomes by name, counted from several threads."""

    def __init__(self):
        super().__init__()
        self.lock = threading.Lock()

    def add(self, key, n=1):
        with self.lock:
            self[key] += n

    def total(self):
        with self.lock:
            return sum(self.values())

    def text(self):
        with self.lock:
            return ", ".join("%s %d" % kv for kv in sorted(self.items()))


def status_of(data):
    """The status code of the first answer in data, or None when the daemon
    closed without answering."""
    if not data:
        return None
    m = re.match(rb"HTTP/1\.[01] (\d{3}) ", data)
    if not m:
        raise AssertionError("not an HTTP answer: %r" % data[:200])
    return int(m.group(1))


def raw_exchange(raw, timeout=40.0, shut_write=False):
    """Sends raw bytes, reads to the close; returns the bytes read (b"" when
    the daemon closed or reset without answering)."""
    with harness.connect(timeout=timeout) as sock:
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
                return b"".join(chunks)
            chunks.append(data)
        return b"".join(chunks)


def trickle(head, pieces, every=0.5, limit=60.0, at=None):
    """Sends head, then the pieces one every `every` s until the daemon
    answers or closes: (bytes read, seconds taken; None for the bytes when
    the pieces ran out first). at=(seconds, fn) calls fn once that far in."""
    with harness.connect(timeout=limit) as sock:
        t0 = time.monotonic()
        sock.sendall(head)
        sock.settimeout(every)
        data = b""
        for piece in pieces:
            if time.monotonic() - t0 > limit:
                break
            if at and time.monotonic() - t0 > at[0]:
                at[1]()
                at = None
            try:
                sock.send(piece)
                chunk = sock.recv(65536)
            except socket.timeout:
                continue
            except OSError:
                return data, time.monotonic() - t0
            if not chunk:
                return data, time.monotonic() - t0
            data += chunk
        return None, time.monotonic() - t0


def trickle_body(length=1000, every=0.5, limit=60.0, at=None):
    """A POST whose body comes a byte every `every` s: (bytes read when
    the daemon answered or closed, seconds taken)."""
    data, took = trickle(b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: %d\r\n\r\n" % length,
                         itertools.repeat(b"a"), every, limit, at)
    return data or b"", took


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
        pid = self.start_channel(*cam_args, fps="50", pictures=pictures, sizes=sizes)[0]
        self.wait_picture()
        return pid

    def wait_picture(self, limit=60.0):
        """Pulls until a whole picture comes (the viewer's polling); its answer."""
        return harness.pull(1, limit)[0][2]

    def pull(self, n, limit=120.0):
        """The sequence numbers of n whole pictures, rising."""
        return [seq for seq, _, _ in harness.pull(n, limit)]

    def usage(self, pid):
        return fd_count(pid), rss_kb(pid)

    def settle(self, pid, before, what):
        """Waits for the descriptors to come back to their level and checks
        the memory; returns the "after" usage."""
        try:
            wait_for(lambda: fd_count(pid) <= before[0] + FD_SLACK,
                     "descriptors back to %d after %s" % (before[0], what), limit=60.0)
        except AssertionError:
            raise AssertionError("%s: descriptors %d before, %d after: %s" % (
                what, before[0], fd_count(pid), sorted(os.listdir("/proc/%d/fd" % pid))))
        after = self.usage(pid)
        if not SANITIZED:
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
                self.assertRegex(f.read(), r"^\d+$", "pid file")
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
