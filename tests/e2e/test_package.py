"""The Debian package on this machine: built with CPack, reviewed by lintian,
then installed, upgraded, removed, reinstalled and purged with dpkg as root,
beside Debian's lighttpd and apache2, with a channel started through the
installed CGI entry as the web server's user. After every step the web
servers' own configuration tests pass; at the end nothing of the package is
left and the web servers' configuration is as it was found.

Only one install cycle may run on a machine at a time: the cycle holds
/tmp/ostrel-dpkg.lock."""

import fcntl
import glob
import os
import pwd
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import CONFIG_KEYS, CONTROL_PORT, alive, complete_states, is_real_root, success_answer, wait_for

CPACK = os.environ.get("OSTREL_CPACK", "")
BUILD_DIR = os.environ.get("OSTREL_BUILD_DIR", "")
SBIN = "/usr/sbin:/usr/bin:/sbin:/bin"
LIGHTTPD = shutil.which("lighttpd", path=SBIN)
APACHE2CTL = shutil.which("apache2ctl", path=SBIN)
LINTIAN = shutil.which("lintian")
WORKDIR = "/var/lib/ostrel"
STATES = os.path.join(WORKDIR, "states", "01.States")
START = "Command=StartUp&Name=01&NumOfControlPortThread=2"
SNIPPETS = ["/etc/lighttpd/conf-enabled/50-ostrel.conf",
            "/etc/lighttpd/conf-enabled/50-ostrel-schedule.conf",
            "/etc/apache2/conf-enabled/ostrel.conf", "/etc/apache2/conf-enabled/ostrel-schedule.conf"]
# Where a package's traces would be; the machine's own entries there are
# listed before the cycle and must be the same after it.
WATCHED = ["/etc/lighttpd", "/etc/apache2", "/var/lib/apache2", "/usr/lib/ostrel",
           "/usr/share/doc/ostrel", "/var/lib/ostrel", "/usr/share/lintian/overrides"]
DEB = DDEB = OUT = ""


def setUpModule():
    global DEB, DDEB, OUT
    if not (CPACK and BUILD_DIR):
        raise unittest.SkipTest("the package is checked in the native build without sanitizers")
    OUT = tempfile.mkdtemp(prefix="ostrel-package-")
    subprocess.run([CPACK, "-G", "DEB", "-B", OUT, "--config",
                    os.path.join(BUILD_DIR, "CPackConfig.cmake")], check=True,
                   stdout=subprocess.DEVNULL)
    DEB, = glob.glob(os.path.join(OUT, "ostrel_*.deb"))
    DDEB, = glob.glob(os.path.join(OUT, "ostrel-dbgsym_*.ddeb"))


def tearDownModule():
    if OUT:
        shutil.rmtree(OUT, ignore_errors=True)


def run(*argv, check=True):
    env = dict(os.environ, PATH=SBIN + ":" + os.environ.get("PATH", ""))
    p = subprocess.run(list(argv), capture_output=True, text=True, timeout=300, env=env)
    if check and p.returncode != 0:
        raise AssertionError("%s: exit %d\n%s%s" % (" ".join(argv), p.returncode, p.stdout,
                                                    p.stderr))
    return p


def listing():
    """{path: link target or file size} of everything under WATCHED."""
    seen = {}
    for top in WATCHED:
        for dirpath, dirs, files in os.walk(top):
            for name in dirs + files:
                path = os.path.join(dirpath, name)
                seen[path] = os.readlink(path) if os.path.islink(path) else \
                    (None if os.path.isdir(path) else os.path.getsize(path))
    return seen


def installed():
    p = run("dpkg-query", "-W", "-f", "${Status}", "ostrel", check=False)
    return p.returncode == 0 and p.stdout.endswith(" installed")


def known():
    """dpkg knows a package ostrel, in any state."""
    return run("dpkg-query", "-W", "ostrel", check=False).returncode == 0


class PackageTest(unittest.TestCase):
    @unittest.skipUnless(LINTIAN, "lintian is not installed (scripts/setup.sh installs it)")
    def test_lintian_finds_no_error_and_no_warning(self):
        # The one overridden tag carries its reason in the package.
        p = run(LINTIAN, "--fail-on", "error,warning", "--pedantic", DEB, DDEB, check=False)
        self.assertEqual(p.returncode, 0, p.stdout + p.stderr)
        self.assertNotRegex(p.stdout, r"(?m)^[EW]: ")

    def test_package_holds_stripped_programs_and_manual_pages(self):
        listing = run("dpkg-deb", "-c", DEB).stdout
        entries = {line.split()[5]: line.split()[0] for line in listing.splitlines()}
        exe, doc = "-rwxr-xr-x", "-rw-r--r--"
        for path, perms in [("usr/lib/ostrel/Ostrel", exe), ("usr/lib/ostrel/ostrel-cgi", exe),
                            ("usr/lib/ostrel/ostrel-schedule-cgi", exe), ("usr/bin/ostrel-ctl", exe),
                            ("usr/bin/ostrel-fleet", exe), ("lib/systemd/system/ostrel@.service", doc),
                            ("lib/systemd/system/ostrel-fleet.service", doc),
                            ("usr/share/doc/ostrel/copyright", doc), ("usr/share/doc/ostrel/changelog.gz", doc),
                            ("etc/lighttpd/conf-available/50-ostrel.conf", doc),
                            ("etc/apache2/conf-available/ostrel-schedule.conf", doc)]:
            with self.subTest(path):
                self.assertEqual(entries.get("./" + path), perms, listing)
        self.assertFalse([p for p in entries if OUT in p or "_CPack" in p or "/var/" in p],
                         "no staging paths; the working directory is postinst's")
        self.assertIn("python3", run("dpkg-deb", "-f", DEB, "Depends").stdout)
        self.assertNotIn("localhost", run("dpkg-deb", "-f", DEB, "Maintainer").stdout)
        control = os.path.join(OUT, "control")
        run("dpkg-deb", "-e", DEB, control)
        with open(os.path.join(control, "conffiles")) as f:
            self.assertEqual(sorted(f.read().split()), [
                "/etc/apache2/conf-available/ostrel-schedule.conf",
                "/etc/apache2/conf-available/ostrel.conf",
                "/etc/lighttpd/conf-available/50-ostrel-schedule.conf",
                "/etc/lighttpd/conf-available/50-ostrel.conf"])

        root = os.path.join(OUT, "root")
        run("dpkg-deb", "-x", DEB, root)
        # The files made from templates are checked in the install layout
        # (test_install.py) and at work in the install cycle below.
        daemon = os.path.join(root, "usr/lib/ostrel/Ostrel")
        self.assertNotIn(".debug_info", run("objdump", "-h", daemon).stdout)
        for page in ("Ostrel.8", "ostrel-ctl.8", "ostrel-cgi.8", "ostrel-fleet.8", "ostrel-viewer.1"):
            with self.subTest(page):
                p = run("man", "--warnings", "-l", "-Tutf8",
                        os.path.join(root, "usr/share/man/man" + page[-1], page + ".gz"))
                self.assertEqual(p.stderr, "", "groff's warnings")
                text = re.sub(".\b", "", p.stdout)
                self.assertRegex(text, r"NAME\n\s+%s\s+-\s" % page[:-2])
                self.assertIn("SYNOPSIS", text)
        # The symbols of the stripped daemon, under its build id.
        sym = os.path.join(OUT, "sym")
        run("dpkg-deb", "-x", DDEB, sym)
        build_id = run("readelf", "-n", daemon).stdout.split("Build ID:")[1].split()[0]
        self.assertTrue(os.path.isfile(os.path.join(
            sym, "usr/lib/debug/.build-id", build_id[:2], build_id[2:] + ".debug")))


@unittest.skipUnless(is_real_root(), "needs root of the machine to install the package with dpkg")
@unittest.skipUnless(LIGHTTPD and APACHE2CTL,
                     "lighttpd and apache2 are not installed (scripts/setup.sh installs them)")
class DpkgCycleTest(unittest.TestCase):
    def setUp(self):
        lock = open("/tmp/ostrel-dpkg.lock", "a")
        self.addCleanup(lock.close)
        fcntl.flock(lock, fcntl.LOCK_EX)
        if known():
            self.skipTest("a package ostrel is on this machine already; it is not touched")
        self.check_web_servers("before the install (the machine's own configuration)")
        self.before = listing()
        self.addCleanup(self.leave_as_found)
        self.www = pwd.getpwnam("www-data")

    def leave_as_found(self):
        if known():
            run("dpkg", "--purge", "ostrel", check=False)
        for link in SNIPPETS:
            if os.path.islink(link):
                os.unlink(link)

    def check_web_servers(self, step):
        for argv in ([LIGHTTPD, "-tt", "-f", "/etc/lighttpd/lighttpd.conf"],
                     [APACHE2CTL, "configtest"]):
            p = run(*argv, check=False)
            self.assertEqual(p.returncode, 0, "%s %s: %s%s" % (step, argv[0], p.stdout, p.stderr))

    def start_channel(self):
        """A start as the web server makes it: the installed CGI entry run
        as www-data; the daemon's process id."""
        env = {"PATH": "/usr/bin:/bin", "REQUEST_METHOD": "GET", "QUERY_STRING": START}
        p = subprocess.run(["/usr/lib/ostrel/ostrel-cgi"], env=env, user=self.www.pw_uid,
                           group=self.www.pw_gid, extra_groups=[], capture_output=True,
                           timeout=30)
        self.assertEqual(p.stdout, success_answer(CONTROL_PORT), p.stderr)
        pid = wait_for(lambda: self.running_pid(), "the channel to run")
        self.addCleanup(lambda: alive(pid) and os.kill(pid, 9))
        return pid

    @staticmethod
    def running_pid():
        states = complete_states(STATES, "NormalOperating")
        return states and int(states["ProcessId"])

    def test_install_upgrade_remove_reinstall_purge(self):
        # Install: the working directory is made for the CGI user.
        run("dpkg", "--install", DEB)
        self.check_web_servers("after the install")
        st = os.stat(WORKDIR)
        self.assertEqual((st.st_uid, st.st_mode & 0o7777), (self.www.pw_uid, 0o750))
        self.assertFalse(run("dpkg", "-S", WORKDIR, check=False).returncode == 0,
                         "the working directory is made by postinst, not a file of the package")

        # The operator's part: settings, the snippets enabled, a channel.
        config = os.path.join(WORKDIR, "conf", "Config.txt")
        with open(config, "w") as f:
            f.write("".join("%s_0001=%s\n" % kv for kv in CONFIG_KEYS))
        os.chown(config, self.www.pw_uid, self.www.pw_gid)
        for conf in ("ostrel", "ostrel-schedule"):
            run("lighty-enable-mod", conf)
            run("a2enconf", "-q", conf)
        self.check_web_servers("with the snippets enabled")
        self.assertEqual(run("/usr/lib/ostrel/ostrel-schedule-cgi").stdout,
                         "Content-Type: text/plain\n\nOK\n")
        pid = self.start_channel()

        # Upgrade (the same version over itself): the channel runs on, the
        # snippets stay enabled, the owner is not reset.
        os.chmod(WORKDIR, 0o755)
        run("dpkg", "--install", DEB)
        self.check_web_servers("after the upgrade")
        self.assertTrue(alive(pid))
        self.assertEqual(self.running_pid(), pid)
        self.assertEqual(os.stat(WORKDIR).st_mode & 0o7777, 0o755)
        self.assertTrue(all(os.path.islink(s) for s in SNIPPETS))
        os.chmod(WORKDIR, 0o750)

        # Remove: the channel is stopped, the snippets disabled; the
        # settings and conffiles stay.
        p = run("dpkg", "--remove", "ostrel")
        self.check_web_servers("after the remove")
        self.assertFalse(alive(pid), p.stdout)
        self.assertIn("01: stopped", p.stdout)
        self.assertFalse(os.path.exists(STATES))
        self.assertFalse([s for s in SNIPPETS if os.path.lexists(s)])
        self.assertTrue(os.path.exists(config))
        self.assertTrue(os.path.exists("/etc/lighttpd/conf-available/50-ostrel.conf"))
        self.assertFalse(os.path.exists("/usr/lib/ostrel/Ostrel"))

        # Reinstall: the snippets the remove disabled are enabled again.
        run("dpkg", "--install", DEB)
        self.check_web_servers("after the reinstall")
        self.assertTrue(all(os.path.islink(s) and os.path.exists(s) for s in SNIPPETS))
        self.assertTrue(os.path.exists(config))
        pid = self.start_channel()
        files = [line.split(None, 5)[-1].lstrip(".").split(" -> ")[0]
                 for line in run("dpkg-deb", "-c", DEB).stdout.splitlines()
                 if not line.startswith("d")]

        # Purge, straight from installed: stop, then nothing is left.
        run("dpkg", "--purge", "ostrel")
        self.check_web_servers("after the purge")
        self.assertFalse(alive(pid))
        self.assertFalse(installed())
        self.assertFalse(os.path.lexists(WORKDIR))
        for path in files + ["/etc/lighttpd/conf-available/50-ostrel.conf"]:
            with self.subTest(path):
                self.assertFalse(os.path.lexists(path))
                self.assertNotEqual(run("dpkg", "-S", path, check=False).returncode, 0)
        self.assertEqual(listing(), self.before)

    def test_remove_without_a_working_directory_or_channels(self):
        # An operator who deleted the tree, or never started a channel:
        # remove and purge still go through and leave the web servers well.
        run("dpkg", "--install", DEB)
        shutil.rmtree(WORKDIR)
        run("lighty-enable-mod", "ostrel")
        run("dpkg", "--remove", "ostrel")
        self.check_web_servers("after the remove")
        self.assertFalse(os.path.lexists(SNIPPETS[0]))
        run("dpkg", "--purge", "ostrel")
        self.check_web_servers("after the purge")
        self.assertEqual(listing(), self.before)


if __name__ == "__main__":
    unittest.main()
