"""The install layout (cmake --install into a temporary prefix) and the
operator command ostrel-ctl run from that install against a real daemon
started through the installed CGI entry. The Debian package: test_package.py."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from harness import ALREADY_ANSWER, CONTROL_PORT, RelayCase, alive, is_real_root, success_answer

CMAKE = os.environ.get("OSTREL_CMAKE", "")
BUILD_DIR = os.environ.get("OSTREL_BUILD_DIR", "")
START = "Command=StartUp&Name=01&NumOfControlPortThread=2"
PREFIX = ""


def setUpModule():
    global PREFIX
    if not (CMAKE and BUILD_DIR):
        raise unittest.SkipTest("OSTREL_CMAKE and OSTREL_BUILD_DIR not set")
    PREFIX = tempfile.mkdtemp(prefix="ostrel-install-")
    os.chmod(PREFIX, 0o755)
    subprocess.run([CMAKE, "--install", BUILD_DIR, "--prefix", PREFIX], check=True,
                   stdout=subprocess.DEVNULL)


def tearDownModule():
    if PREFIX:
        shutil.rmtree(PREFIX, ignore_errors=True)


def mode(path):
    return os.stat(path).st_mode & 0o7777


class InstallTest(unittest.TestCase):
    def test_install_puts_everything_in_its_place(self):
        rows = [
            ("lib/ostrel/Ostrel", 0o755), ("lib/ostrel/ostrel-cgi", 0o755),
            ("bin/ostrel-ctl", 0o755), ("bin/ostrel-viewer", 0o755),
            ("share/doc/ostrel/OPERATIONS.md", 0o644),
            ("etc/lighttpd/conf-available/50-ostrel.conf", 0o644),
            ("etc/apache2/conf-available/ostrel.conf", 0o644),
            ("var/lib/ostrel", 0o750), ("var/lib/ostrel/conf", 0o750),
            ("var/lib/ostrel/log", 0o750), ("var/lib/ostrel/mem", 0o750),
            ("var/lib/ostrel/states", 0o750),
        ]
        for path, want in rows:
            with self.subTest(path):
                self.assertEqual(mode(os.path.join(PREFIX, path)), want)
        for snippet in ("lighttpd/conf-available/50-ostrel.conf", "apache2/conf-available/ostrel.conf"):
            with open(os.path.join(PREFIX, "etc", snippet)) as f:
                text = f.read()
            self.assertIn(PREFIX + "/lib/ostrel/ostrel-cgi", text)
            self.assertIn(PREFIX + "/var/lib/ostrel", text)
            self.assertNotIn("@", text)
        with open(os.path.join(PREFIX, "var/lib/ostrel/Directory.Conf")) as f:
            self.assertIn("<StatesDir>%s/var/lib/ostrel/states</StatesDir>" % PREFIX, f.read())

    def test_service_units_point_into_the_install_and_verify(self):
        units = os.path.join(PREFIX, "lib/systemd/system")
        self.assertEqual(sorted(os.listdir(units)), ["ostrel-fleet.service", "ostrel@.service"])
        for unit, command in (("ostrel@.service", "lib/ostrel/Ostrel -StartUp_NonDeamon %i"),
                              ("ostrel-fleet.service", "bin/ostrel-fleet -C")):
            with self.subTest(unit):
                with open(os.path.join(units, unit)) as f:
                    text = f.read()
                self.assertNotIn("@OSTREL", text)
                self.assertIn("ExecStart=%s/%s" % (PREFIX, command), text)
                self.assertIn("-C %s/var/lib/ostrel" % PREFIX, text)
        analyze = shutil.which("systemd-analyze")
        if not analyze:
            self.skipTest("systemd-analyze is not installed")
        # A template is verified as one of its instances.
        scratch = tempfile.mkdtemp(prefix="ostrel-units-")
        self.addCleanup(shutil.rmtree, scratch, True)
        shutil.copy(os.path.join(units, "ostrel@.service"), os.path.join(scratch, "ostrel@01.service"))
        for path in (os.path.join(scratch, "ostrel@01.service"),
                     os.path.join(units, "ostrel-fleet.service")):
            with self.subTest(path):
                p = subprocess.run([analyze, "verify", path], capture_output=True, text=True)
                self.assertEqual((p.returncode, p.stderr), (0, ""))


class CtlTest(RelayCase):
    """ostrel-ctl over a working directory with a states directory."""

    def setUp(self):
        super().setUp()
        os.makedirs(self.path("states"))
        self.write_directory_conf(self.path("states"))
        self.states_file = self.path("states", "01.States")

    def ctl(self, *args, user=None, closed_pipe=False):
        """ostrel-ctl on the test's working directory, as USER (with that
        user's own group only) when given: (exit status, output). With
        closed_pipe, its output goes into a pipe nobody reads any more
        (ostrel-ctl status | head -1): (exit status, standard error)."""
        who = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        r, w = os.pipe()
        os.close(r)
        try:
            p = subprocess.run([os.path.join(PREFIX, "bin", "ostrel-ctl"), "-C", self.work] + list(args),
                               stdout=w if closed_pipe else subprocess.PIPE, stderr=subprocess.PIPE,
                               text=True, timeout=120, **who)
        finally:
            os.close(w)
        return p.returncode, (p.stdout or "") + p.stderr

    def cgi_start(self, query=START):
        env = {k: v for k, v in os.environ.items() if k not in ("CONTENT_LENGTH",)}
        env.update(REQUEST_METHOD="GET", QUERY_STRING=query, OSTREL_WORKDIR=self.work)
        return subprocess.run([os.path.join(PREFIX, "lib", "ostrel", "ostrel-cgi")], env=env,
                              capture_output=True, timeout=30, check=True).stdout

    def start(self):
        self.assertEqual(self.cgi_start(), success_answer(CONTROL_PORT))
        pid = int(self.wait_states("NormalOperating", path=self.states_file)["ProcessId"])
        self.daemon_pids.append(pid)
        self.wait_pid_file(pid, 1)
        return pid

    def expect(self, status, args, *texts):
        """ostrel-ctl args ends with status and says each of texts; its output."""
        rc, out = self.ctl(*args)
        self.assertEqual(rc, status, out)
        for text in texts:
            self.assertIn(text, out)
        return out

    def test_status_stop_and_clean_with_a_real_daemon(self):
        pid = self.start()
        row = [line for line in self.expect(0, ["status"]).splitlines() if line.startswith("01 ")]
        self.assertEqual(len(row), 1)
        cols = re.split(r"\s{2,}", row[0])
        self.assertEqual(cols[:5], ["01", "NormalOperating", str(pid), "alive, Ostrel", str(CONTROL_PORT)])
        self.assertIn(cols[5], self.log_text().splitlines())

        # A live daemon's file is never cleaned.
        self.expect(1, ["clean", "01"], "is running; not touched")
        self.expect(0, ["clean"])
        self.assertTrue(os.path.exists(self.states_file))

        # After a crash the file blocks every start until it is cleaned.
        self.stop_daemon(pid, signal.SIGKILL)
        self.expect(1, ["status"], "gone; stale: ostrel-ctl clean 01")
        self.assertEqual(self.cgi_start(), ALREADY_ANSWER)
        self.expect(0, ["clean"], "removed the states file %s (stale: process %d is gone)" % (self.states_file, pid))
        self.assertFalse(os.path.exists(self.states_file))

        pid = self.start()
        self.expect(0, ["stop", "01"], "01: stopped (process %d ended" % pid)
        self.wait_gone(pid, limit=1)
        self.assertFalse(os.path.exists(self.states_file))
        self.assertIn("States file deleted", self.log_text())

        # Several names, one unknown; then output nobody reads: no
        # traceback, and the work is done all the same.
        pid = self.start()
        self.expect(2, ["stop", "01", "99"], "01: stopped (process %d ended" % pid, "'99' is not a channel here")
        self.start()
        for args in (["status"], ["stop", "--all"]):
            with self.subTest(args):
                self.assertEqual(self.ctl(*args, closed_pipe=True), (0, ""))
        self.assertFalse(os.path.exists(self.states_file))
        self.assertEqual(self.ctl("stop", "--all"), (0, "no channel is running\n"))

    def test_mistyped_names_leave_error_exit_files_that_clean_removes(self):
        # A launcher's typing errors: the daemon refuses the name after the
        # fork and leaves an ErrorExit file that no configuration names.
        for name in ("100", "ab"):
            self.cgi_start("Command=StartUp&Name=%s" % name)
            self.wait_states("ErrorExit", path=self.path("states", name + ".States"))
        self.expect(0, ["stop", "100"], "ostrel-ctl clean 100 removes its states file")
        # Several names: a line for each, the missing one too, whose error
        # does not stop the others.
        out = self.expect(2, ["clean", "100", "77", "ab"], "100: removed the states file",
                          "ab: removed the states file", "(a failed start: For invalid argument)",
                          "'77' is not a channel here")
        self.assertEqual(len(out.splitlines()), 3, out)
        self.assertEqual(os.listdir(self.path("states")), [])

        # Without names, every one; a stale and a live file beside them.
        self.cgi_start("Command=StartUp&Name=ab")
        self.wait_states("ErrorExit", path=self.path("states", "ab.States"))
        pid = self.start()
        self.assertEqual(self.expect(0, ["clean"]).count("\n"), 1)
        self.assertEqual(os.listdir(self.path("states")), ["01.States"])
        self.assertTrue(alive(pid))

    def test_status_masks_the_camera_password(self):
        with open(self.states_file, "w") as f:
            f.write("<PPD.States>\n <States>ErrorExit</States>\n</PPD.States>\n")
        rows = [
            # last log line, as status shows it
            ("[2026/11/25 02:44:01] SetTargetAuth(1,viewer,s3cr,t)x)",
             "[2026/11/25 02:44:01] SetTargetAuth(1,viewer,***)"),
            ("[2026/11/25 02:44:01] channel_authentic_user_passwd old -> s3cr -> t",
             "[2026/11/25 02:44:01] channel_authentic_user_passwd *** -> ***"),
            ("[2026/11/25 02:44:01] SetTargetAuth(OFF)", "[2026/11/25 02:44:01] SetTargetAuth(OFF)"),
        ]
        for line, shown in rows:
            with self.subTest(line):
                with open(self.path("log", "Ostrel_01_log0.txt"), "w") as f:
                    f.write("[2026/11/25 02:44:00] Start\n%s\n" % line)
                rc, out = self.ctl("status")
                self.assertTrue(out.rstrip().endswith(shown), out)
                self.assertNotIn("s3cr", out)

    def test_errors_name_the_file_and_touch_nothing(self):
        bad = {"02": "<PPD.States>\n <States>Normal", "03": "<Other><States>NormalOperating</States></Other>"}
        for name, text in bad.items():
            with open(self.path("states", name + ".States"), "w") as f:
                f.write(text)
        rows = [
            # arguments, exit status, text in the output, note
            (["-C", "/nonexistent/ostrel", "status"], 2,
             "working directory /nonexistent/ostrel: No such file or directory", "missing directory"),
            (["status"], 1, "malformed", "a malformed states file is shown"),
            (["stop", "02"], 2, "02.States is malformed", "stop refuses a malformed file"),
            (["clean", "03"], 1, "03.States is malformed", "clean refuses a wrong document"),
            (["clean"], 1, "not touched", "clean of all leaves malformed files"),
            (["stop", "99"], 2, "'99' is not a channel here: no states file", "no such channel"),
            (["stop", "../01"], 2, "'../01' is not a channel name", "a path is not a name"),
            (["stop"], 2, "stop wants channel names or --all", "stop without a name"),
            (["-C", self.path("states"), "status"], 2,
             "%s is not a working directory: no conf/, log/, mem/" % self.path("states"),
             "a directory that is not a working directory"),
        ]
        for args, status, text, note in rows:
            with self.subTest(note):
                self.expect(status, args, text)
        self.assertEqual(sorted(os.listdir(self.path("states"))), ["02.States", "03.States"])

    @unittest.skipUnless(is_real_root(), "needs root to run ostrel-ctl as a user who cannot read")
    def test_permission_problems_are_named(self):
        rows = [
            # modes of the working directory, Directory.Conf, states/; message
            (0o755, 0o644, 0o700, "states directory %s: Permission denied" % self.path("states")),
            (0o755, 0o600, 0o755, "%s: Permission denied" % self.path("Directory.Conf")),
            (0o750, 0o644, 0o755, "working directory %s: Permission denied" % self.work),
        ]
        for work, conf, states, message in rows:
            with self.subTest(message):
                os.chmod(self.work, work)
                os.chmod(self.path("Directory.Conf"), conf)
                os.chmod(self.path("states"), states)
                rc, out = self.ctl("status", user=65534)
                self.assertEqual(rc, 2, out)
                self.assertEqual(out, "ostrel-ctl: %s\n" % message)


if __name__ == "__main__":
    unittest.main()
