"""The install layout (cmake --install into a temporary prefix, and the
Debian package built with CPack) and the operator command ostrel-ctl run from
that install against a real daemon started through the installed CGI entry."""

import glob
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from harness import CONTROL_PORT, RelayCase, is_real_root, launcher_answer, success_answer

CMAKE = os.environ.get("OSTREL_CMAKE", "")
CPACK = os.environ.get("OSTREL_CPACK", "")
BUILD_DIR = os.environ.get("OSTREL_BUILD_DIR", "")
START = "Command=StartUp&Name=01&NumOfControlPortThread=2"
ALREADY = launcher_answer(b"<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n")
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

    @unittest.skipUnless(CPACK, "the package is checked in the native build without sanitizers")
    def test_debian_package_lists_and_unpacks(self):
        out = tempfile.mkdtemp(prefix="ostrel-deb-")
        self.addCleanup(shutil.rmtree, out, True)
        subprocess.run([CPACK, "-G", "DEB", "-B", out, "--config",
                        os.path.join(BUILD_DIR, "CPackConfig.cmake")],
                       check=True, stdout=subprocess.DEVNULL)
        debs = glob.glob(os.path.join(out, "ostrel_0.2_*.deb"))
        self.assertEqual(len(debs), 1, os.listdir(out))
        deb = debs[0]

        listing = subprocess.run(["dpkg-deb", "-c", deb], check=True, capture_output=True,
                                 text=True).stdout
        entries = {line.split()[-1]: line.split()[0] for line in listing.splitlines()}
        for path, perms in [("./usr/lib/ostrel/Ostrel", "-rwxr-xr-x"),
                            ("./usr/lib/ostrel/ostrel-cgi", "-rwxr-xr-x"),
                            ("./usr/bin/ostrel-ctl", "-rwxr-xr-x"),
                            ("./usr/share/doc/ostrel/README.md", "-rw-r--r--"),
                            ("./etc/lighttpd/conf-available/50-ostrel.conf", "-rw-r--r--"),
                            ("./etc/apache2/conf-available/ostrel.conf", "-rw-r--r--"),
                            ("./var/lib/ostrel/", "drwxr-x---"),
                            ("./var/lib/ostrel/states/", "drwxr-x---")]:
            with self.subTest(path):
                self.assertEqual(entries.get(path), perms, listing)
        self.assertFalse([p for p in entries if out in p or "_CPack" in p], "no staging paths")

        depends = subprocess.run(["dpkg-deb", "-f", deb, "Depends"], check=True,
                                 capture_output=True, text=True).stdout
        self.assertIn("python3", depends)
        control = os.path.join(out, "control")
        subprocess.run(["dpkg-deb", "-e", deb, control], check=True)
        with open(os.path.join(control, "conffiles")) as f:
            self.assertEqual(f.read().split(), ["/etc/lighttpd/conf-available/50-ostrel.conf",
                                                "/etc/apache2/conf-available/ostrel.conf"])
        with open(os.path.join(control, "postinst")) as f:
            self.assertIn("ostrel-ctl init --user www-data /var/lib/ostrel", f.read())

        root = os.path.join(out, "root")
        subprocess.run(["dpkg-deb", "-x", deb, root], check=True)
        with open(os.path.join(root, "etc/lighttpd/conf-available/50-ostrel.conf")) as f:
            text = f.read()
        self.assertIn('"/usr/lib/ostrel/ostrel-cgi"', text)
        self.assertIn('"/var/lib/ostrel"', text)


class CtlTest(RelayCase):
    """ostrel-ctl over a working directory with a states directory."""

    def setUp(self):
        super().setUp()
        os.makedirs(self.path("states"))
        self.write_directory_conf(self.path("states"))
        self.states_file = self.path("states", "01.States")

    def ctl(self, *args, user=None):
        p = subprocess.run([os.path.join(PREFIX, "bin", "ostrel-ctl"), "-C", self.work] + list(args),
                           capture_output=True, text=True, timeout=120, user=user)
        return p.returncode, p.stdout + p.stderr

    def cgi_start(self):
        env = {k: v for k, v in os.environ.items() if k not in ("CONTENT_LENGTH",)}
        env.update(REQUEST_METHOD="GET", QUERY_STRING=START, OSTREL_WORKDIR=self.work)
        return subprocess.run([os.path.join(PREFIX, "lib", "ostrel", "ostrel-cgi")], env=env,
                              capture_output=True, timeout=30, check=True).stdout

    def start(self):
        self.assertEqual(self.cgi_start(), success_answer(CONTROL_PORT))
        pid = int(self.wait_states("NormalOperating", path=self.states_file)["ProcessId"])
        self.daemon_pids.append(pid)
        self.wait_pid_file(pid, 1)
        return pid

    def test_status_stop_and_clean_with_a_real_daemon(self):
        pid = self.start()
        rc, out = self.ctl("status")
        self.assertEqual(rc, 0, out)
        row = [line for line in out.splitlines() if line.startswith("01 ")]
        self.assertEqual(len(row), 1, out)
        cols = re.split(r"\s{2,}", row[0])
        self.assertEqual(cols[:5], ["01", "NormalOperating", str(pid), "alive, Ostrel",
                                    str(CONTROL_PORT)])
        self.assertIn(cols[5], self.log_text().splitlines())

        # A live daemon's file is never cleaned.
        rc, out = self.ctl("clean", "01")
        self.assertEqual(rc, 1, out)
        self.assertIn("is running; not touched", out)
        self.assertEqual(self.ctl("clean")[0], 0)
        self.assertTrue(os.path.exists(self.states_file))

        # After a crash the file blocks every start until it is cleaned.
        self.stop_daemon(pid, signal.SIGKILL)
        rc, out = self.ctl("status")
        self.assertEqual(rc, 1, out)
        self.assertIn("gone; stale: ostrel-ctl clean 01", out)
        self.assertEqual(self.cgi_start(), ALREADY)
        rc, out = self.ctl("clean")
        self.assertEqual(rc, 0, out)
        self.assertIn("removed the stale states file", out)
        self.assertFalse(os.path.exists(self.states_file))

        pid = self.start()
        rc, out = self.ctl("stop", "01")
        self.assertEqual(rc, 0, out)
        self.assertIn("01: stopped (process %d ended" % pid, out)
        self.wait_gone(pid, limit=1)
        self.assertFalse(os.path.exists(self.states_file))
        self.assertIn("States file deleted", self.log_text())

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
        ]
        for args, status, text, note in rows:
            with self.subTest(note):
                rc, out = self.ctl(*args)
                self.assertEqual(rc, status, out)
                self.assertIn(text, out)
        self.assertEqual(sorted(os.listdir(self.path("states"))), ["02.States", "03.States"])

    @unittest.skipUnless(is_real_root(), "needs root to run ostrel-ctl as a user who cannot read")
    def test_unreadable_states_directory_is_an_error(self):
        os.chmod(self.work, 0o755)
        os.chmod(self.path("states"), 0o700)
        rc, out = self.ctl("status", user=65534)
        self.assertEqual(rc, 2, out)
        self.assertIn("states directory %s: Permission denied" % self.path("states"), out)


if __name__ == "__main__":
    unittest.main()
