"""The daemon out of file descriptors and on a full file system.

Descriptors: the daemon's RLIMIT_NOFILE is lowered (prlimit) to exactly
what it holds, while a viewer and more clients queue on the control port
and the camera connection is cut. The accept loop must neither spin nor
die, must say so in the log once per episode, and must serve the queued
viewer as soon as the limit is raised again; the camera comes back through
the ordinary back-off.

Disk: the working directory (or the states or pid file's directory alone)
is a small tmpfs in the test's own mount namespace, filled up. A running
channel goes on relaying, log lines that cannot be written are dropped
whole, and the log resumes when space returns; a states or pid file that
cannot be written at start is a failed start, never a cut file left behind.
"""

import contextlib
import os
import resource
import subprocess
import sys
import threading
import time
import unittest

# A mount namespace of the test's own (inside the network namespace it was
# started in), so that its tmpfs mounts are seen by nobody else.
if os.environ.get("OSTREL_OWN_MOUNTS") != "1" and __name__ == "__main__":
    os.execvp("unshare", ["unshare", "-m", "--propagation", "private", "env", "OSTREL_OWN_MOUNTS=1",
                          sys.executable, "-B"] + sys.argv)

import harness  # noqa: E402
import reliability as r  # noqa: E402
from reliability import MYIP  # noqa: E402

ACCEPT_LINE = "[Sock_Accept] accept failed (errno 24: Too many open files), out of descriptors"
RECOVERY_LINE = "[Sock_Accept] accept works again after"
CAMERA_FAILED_LINE = "[Class_CamThread::ThreadMain] obAXISJPEGMultiPart.Start failed ::"


def setUpModule():
    harness.setup_namespace()


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def log_failures(case):
    return case.log_text().count(CAMERA_FAILED_LINE)


def lowest_free_fd(pid):
    used = {int(n) for n in os.listdir("/proc/%d/fd" % pid)}
    n = 0
    while n in used:
        n += 1
    return n


class DescriptorTest(r.ReliabilityCase):
    def test_out_of_descriptors(self):
        pid = self.start_streaming()
        before = self.usage(pid)
        limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
        self.addCleanup(lambda: r.alive(pid) and resource.prlimit(pid, resource.RLIMIT_NOFILE, limits))
        notes = []
        for episode in (1, 2):
            if episode == 1:
                # The camera goes away first (its closed socket would free a
                # descriptor): its reconnection cannot get a socket and backs
                # off like any failed start. Two failed starts are waited
                # for, so that the back-off has begun once with descriptors
                # to spare. The AddressSanitizer build's UBSan checks a member
                # call the first time it meets a polymorphic type by writing
                # the vtable into a pipe; out of descriptors pipe2() fails, it
                # takes the live camera thread for an "object has invalid
                # vptr" and ends the daemon with exit 1, its report on
                # standard error (/dev/null): the open of /proc/self/environ,
                # where it would read its log_path, fails too (strace -f).
                failed = log_failures(self)
                self.children[0].terminate()
                self.children[0].wait(10)
                self.children.pop(0)
                r.wait_for(lambda: log_failures(self) >= failed + 2, "the camera's reconnection to fail twice")
            # Nothing more can be opened: every accept fails with EMFILE.
            # Silent clients queue first, then the viewer.
            resource.prlimit(pid, resource.RLIMIT_NOFILE, (lowest_free_fd(pid), limits[1]))
            # A control thread blocked in accept() holds the number of the
            # descriptor it will return, taken before the limit came down.
            # A quick request for each thread (two from the command line),
            # queued first, uses those up: whatever comes after meets the
            # shortage. (A thread that was not waiting in accept() holds no
            # number; its request waits in the queue like the others.)
            recovered = self.log_text().count(RECOVERY_LINE)
            queued = []
            for _ in range(2):
                queued.append(harness.connect(timeout=60))
                queued[-1].sendall(b"GET /none HTTP/1.0\r\n\r\n")
            queued += [harness.connect(timeout=60) for _ in range(8)]
            answers = []
            viewer = threading.Thread(target=lambda: answers.extend(harness.parse_answers(harness.exchange(
                b"GET /ptippreimg.cgi?get_image=1&img_user_id=1 HTTP/1.0\r\n\r\n", timeout=60))), daemon=True)
            cpu0 = cpu_seconds(pid)
            viewer.start()
            # Longer than the main loop's 5 s look at the states file: a
            # shortage must not be taken for its deletion.
            time.sleep(7)
            cpu = cpu_seconds(pid) - cpu0
            self.assertTrue(r.alive(pid), "the daemon ended out of descriptors%s" % (
                " (a sanitizer check that needed a descriptor? strace -f the daemon)"
                if r.SANITIZED else ""))
            self.assertLess(cpu, 0.25 * 7, "%.2f s of CPU in 7 s out of descriptors" % cpu)
            # The silent clients give up; descriptors come back.
            for sock in queued:
                sock.close()
            t0 = time.monotonic()
            resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)
            viewer.join(60)
            self.assertTrue(answers, "the queued viewer was not served")
            self.assertEqual(answers[0].status, 200)
            # Accepts did fail, and the daemon says it has descriptors again.
            r.wait_for(lambda: self.log_text().count(RECOVERY_LINE) > recovered, "the recovery line")
            a = harness.get_image()
            served = time.monotonic() - t0
            self.assertEqual(a.status, 200)
            if episode == 1:
                self.start_camsim("--fps", "50", pictures=8)
            self.wait_picture(limit=60)
            notes.append("CPU %.2f s in 7 s; viewer served %.1f s after the limit was raised" % (cpu, served))
        log = self.log_text()
        # At most one line as a shortage begins and one as it ends, per
        # episode. Both need a descriptor for the log file, and in the
        # daemon another thread's accept may take the one freed for them
        # (net.AcceptTest shows the lines where nothing competes).
        lines = "\n".join(line for line in log.splitlines() if "[Sock_Accept]" in line)
        self.assertLessEqual(log.count(ACCEPT_LINE), 2, lines)
        self.assertLessEqual(log.count(RECOVERY_LINE), 2, lines)
        self.finish(pid, "resources: out of descriptors (RLIMIT_NOFILE at the open count), 2 episodes", 2,
                    "survived; one log line each; queued viewer served; camera back after back-off",
                    before, note="; ".join(notes))


class DiskFullTest(r.ReliabilityCase):
    def mount_tmpfs(self, path, size):
        os.makedirs(path, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%s,mode=0777" % size, "tmpfs", path], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", path])

    def fill(self, directory):
        """Fills the file system of directory; returns the filler's path."""
        path = os.path.join(directory, "filler")
        with open(path, "wb") as f:
            try:
                while True:
                    f.write(b"\0" * 65536)
                    f.flush()
            except OSError:
                pass
        # Also the last page's slack, byte by byte.
        try:
            with open(path, "ab", buffering=0) as f:
                while f.write(b"\0"):
                    pass
        except OSError:
            pass
        return path

    def test_disk_full_while_relaying(self):
        # The whole working directory on a small file system of its own.
        self.mount_tmpfs(self.work, "3m")
        for d in ("conf", "log", "mem", "sanitizer"):
            os.makedirs(self.path(d), exist_ok=True)
        self.write_config()
        pid = self.start_streaming()
        before = self.usage(pid)
        probe = "/ptippreimg.cgi?get_image=1&img_user_id=%d"
        filler = self.fill(self.work)
        line = "get_image Error.This img_user_id is not login"
        before_full = self.log_text().count(line)
        for i in range(200):
            # Each logs a line; a few fit into the log file's last page,
            # then a line no longer fits whole and none after it.
            self.assertEqual(harness.request(probe % (1000 + i)).body, b"ERROR_USER_ID:")
        self.pull(50)
        written = self.log_text().count(line) - before_full
        self.assertLess(written, 200, "every line written on a full disk?")
        sizes_full = r.log_sizes(self)
        self.check_files(pid)
        self.assertTrue(self.log_text().endswith("\n"), "a line cut short on a full disk")
        os.remove(filler)
        self.assertEqual(harness.request(probe % 999).body, b"ERROR_USER_ID:")
        r.wait_for(lambda: self.log_text().count(line) > before_full + written, "the log to resume")
        self.check_files(pid)
        self.pull(10)
        self.finish(pid, "resources: working directory's file system full while relaying", 200,
                    "pictures relayed; log lines dropped whole; log resumed when space returned", before,
                    note="%d of 200 lines fitted while full (the last page); log sizes %s" % (
                        written, "/".join(str(s) for s in sizes_full)))

    @contextlib.contextmanager
    def row_cleanup(self, full):
        try:
            yield
        finally:
            self.stop_daemons()
            subprocess.run(["umount", "-l", self.path(full)])
            if os.path.exists(self.path("Directory.Conf")):
                os.remove(self.path("Directory.Conf"))

    def test_start_with_files_unwritable(self):
        rows = [
            # what is full, the launcher's answer, log line
            ("states directory", "states", None, None),
            ("pid file directory", "mem", harness.success_answer(r.CONTROL_PORT),
             "[gg_writePid] fprintf(sFileName mem/Ostrel_01.pid) failed"),
        ]
        for what, full, answer, line in rows:
            with self.subTest(what=what), self.row_cleanup(full):
                directory = self.path(full)
                self.mount_tmpfs(directory, "64k")
                self.fill(directory)
                if full == "states":
                    self.write_directory_conf(directory)
                    answer = harness.start_failed_answer(
                        b"States file does not create. Prease check a permission '%s/'" % directory.encode())
                out, err = self.run_ostrel("-StartUp", "1")
                self.assertEqual(out, answer, err)
                if line:
                    r.wait_for(lambda: line in self.log_text(), "log line %r" % line)
                    self.wait_log("[Server_Construct] writePid(pid_file_name_tmp mem/Ostrel_01.pid) failed ::")
                    # The daemon takes itself down and removes its states file.
                    r.wait_for(lambda: not os.path.exists(self.states_path()), "the states file removed",
                               limit=30)
                    r.wait_for(lambda: not harness.is_listening(MYIP, r.CONTROL_PORT), "the daemon gone")
                left = sorted(n for n in os.listdir(directory) if n != "filler")
                self.assertEqual(left, [], "files left on the full file system")
                r.record("resources: start with the %s full" % what, 1,
                         "no file left; launcher answered %s" % (
                             "Success, daemon ended (pid file written after the answer)" if line
                             else "Err_StartFaild"))


if __name__ == "__main__":
    unittest.main()
