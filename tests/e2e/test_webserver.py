"""Ostrel under a real web server: lighttpd, configured with the shipped
snippet, runs the shipped CGI entry as www-data, and real HTTP requests start,
refuse and describe a channel. The tree is laid out as an install would be:
the daemon and its CGI entry side by side, the working directory made by
ostrel-ctl init (mode 0750, owned by www-data)."""

import glob
import os
import pwd
import shutil
import signal
import subprocess
import sys
import unittest

from harness import (ALREADY_ANSWER, BIN, CONFIG_KEYS, MYIP, SOURCE_DIR, TEMPLATE_ANSWER, RelayCase, http,
                     is_listening, is_real_root, success_answer, wait_for)

LIGHTTPD = shutil.which("lighttpd", path="/usr/sbin:/usr/bin:/sbin")
WEB_PORT = 8090
START = "Command=StartUp&Name=01&NumOfControlPortThread=2"


def setUpModule():
    if not is_real_root():
        raise unittest.SkipTest("needs root: the web server runs the daemon as www-data")
    if not LIGHTTPD:
        raise unittest.SkipTest("lighttpd is not installed (scripts/setup.sh installs it)")


def cgi(method, query="", body=b""):
    """One request for the CGI entry, read until the web server closes the
    connection (a web server held open by a descriptor the daemon inherited
    never closes, and this fails): (status, headers, body)."""
    return http(MYIP, WEB_PORT, "/ostrel/ostrel.cgi" + ("?" + query if query else ""), method, body,
                timeout=30)


def document(answer):
    """The document of a launcher answer (what follows its blank line)."""
    return answer.split(b"\n\n", 1)[1]


class LighttpdTest(RelayCase):
    def setUp(self):
        super().setUp()
        os.chmod(self.work, 0o755)
        self.www = pwd.getpwnam("www-data")
        # Sanitizer reports of the daemon, which runs as www-data.
        os.chown(self.sanitizer_dir, self.www.pw_uid, self.www.pw_gid)

        # The install layout: daemon and CGI entry side by side, in copies
        # www-data can reach wherever the build tree is.
        libdir = self.path("lib", "ostrel")
        os.makedirs(libdir)
        os.chmod(self.path("lib"), 0o755)
        os.chmod(libdir, 0o755)
        for src, name in ((BIN, "Ostrel"),
                          (os.path.join(SOURCE_DIR, "deploy", "bin", "ostrel-cgi"), "ostrel-cgi")):
            shutil.copy(src, os.path.join(libdir, name))
            os.chmod(os.path.join(libdir, name), 0o755)
        self.site = self.path("site")
        self.states_file = os.path.join(self.site, "states", "01.States")
        subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "deploy", "bin", "ostrel-ctl"), "init",
                        "--user", "www-data", self.site], check=True, stdout=subprocess.DEVNULL)
        config = os.path.join(self.site, "conf", "Config.txt")
        with open(config, "w") as f:
            f.write("".join("%s_0001=%s\n" % kv for kv in CONFIG_KEYS))
        os.chown(config, self.www.pw_uid, self.www.pw_gid)

        # lighttpd with Debian's defaults that matter here and the shipped
        # snippet; the sanitizers' settings reach the daemon the same way as
        # the working directory does.
        with open(os.path.join(SOURCE_DIR, "deploy", "lighttpd", "50-ostrel.conf.in")) as f:
            snippet = f.read().replace("@OSTREL_LIBDIR@", libdir).replace("@OSTREL_WORKDIR@",
                                                                          self.site)
        extra = ""
        for var in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            opts = os.environ.get(var, "").split(":")
            for i, opt in enumerate(opts):
                if opt.startswith("suppressions="):
                    copy = self.path(var.lower() + ".supp")
                    shutil.copy(opt.split("=", 1)[1], copy)
                    os.chmod(copy, 0o644)
                    opts[i] = "suppressions=" + copy
            if any(opts):
                extra += ', "%s" => "%s"' % (var, ":".join(opts))
        snippet = snippet.replace('"%s" )' % self.site, '"%s"%s )' % (self.site, extra))
        web = self.path("web")
        os.makedirs(web)
        os.chown(web, self.www.pw_uid, self.www.pw_gid)
        with open(self.path("lighttpd.conf"), "w") as f:
            f.write('server.document-root = "%s"\n'
                    'server.upload-dirs = ( "%s" )\n'
                    'server.errorlog = "%s/error.log"\n'
                    'server.bind = "%s"\nserver.port = %d\n'
                    'server.username = "www-data"\nserver.groupname = "www-data"\n%s'
                    % (web, web, web, MYIP, WEB_PORT, snippet))
        # Its output goes nowhere: a process that inherited it must not hold
        # the test runner's pipe.
        self.lighttpd = self.spawn([LIGHTTPD, "-D", "-f", self.path("lighttpd.conf")],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(lambda: self.lighttpd.poll() is not None or is_listening(MYIP, WEB_PORT),
                 "lighttpd to listen")
        self.assertIsNone(self.lighttpd.poll(), self.web_log())

    def web_log(self):
        try:
            with open(self.path("web", "error.log")) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def states(self):
        return self.read_states(path=self.states_file)

    def as_nobody(self, command):
        """Runs a shell command as the user nobody; its exit status."""
        return subprocess.run(["/bin/sh", "-c", command], user=65534, group=65534,
                              extra_groups=[], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode

    def test_web_server_starts_a_channel_that_outlives_it(self):
        rows = [
            # method, query, body, answer's document, Content-Length; the
            # start itself: the whole answer arrives and the connection
            # closes while the daemon runs on
            ("HEAD", START, b"", b"", None),  # the one header line, nothing started
            ("GET", "Command=GetConfigTemplate", b"", document(TEMPLATE_ANSWER), "53"),
            ("GET", START, b"", document(success_answer(8080)), "70"),
            ("POST", "", START.encode(), document(ALREADY_ANSWER), None),  # refused while it runs
        ]
        for method, query, body, doc, length in rows:
            with self.subTest(method=method, query=query):
                status, headers, got = cgi(method, query, body)
                self.assertEqual((status, headers.get("content-type"), got), (200, "text/plain", doc),
                                 self.web_log())
                if length:
                    self.assertEqual(headers.get("content-length"), length)
                if method == "HEAD":
                    self.assertIsNone(self.states())
                elif query == START:
                    states = self.wait_states("NormalOperating", path=self.states_file)
        pid = int(states["ProcessId"])
        self.daemon_pids.append(pid)
        self.assertEqual(states["Port"], "8080")
        self.assertEqual(self.owner(pid), self.www.pw_uid)
        fds = []
        for fd in os.listdir("/proc/%d/fd" % pid):
            try:
                fds.append(os.readlink("/proc/%d/fd/%s" % (pid, fd)))
            except FileNotFoundError:
                pass  # closed meanwhile: the daemon opens its log file for each line
        self.assertFalse([f for f in fds if f.startswith("pipe:")],
                         "the daemon holds none of the web server's pipes: %s" % fds)
        log = os.path.join(self.site, "log", "Ostrel_01_log0.txt")
        self.assertTrue(os.path.exists(log), "the CGI entry names the channel's log")

        # Other users reach none of the channel's files.
        self.assertEqual(self.as_nobody("cat /dev/null"), 0)
        for command in ("cat '%s'" % log, ": >> '%s'" % self.states_file, "rm -f '%s'" % self.states_file):
            self.assertNotEqual(self.as_nobody(command), 0, command)
        self.assertTrue(os.path.exists(self.states_file))

        # The web server's stop leaves the channel running, as www-data.
        self.lighttpd.send_signal(signal.SIGTERM)
        self.assertEqual(self.lighttpd.wait(30), 0, self.web_log())
        self.assertEqual(self.owner(pid), self.www.pw_uid)
        self.assertTrue(is_listening(MYIP, 8080))

        # lighttpd ends a CGI process still running once its answer is
        # complete (SIGTERM): that reaches the CGI entry, never the program,
        # whose stop handler would hang in the middle of a log line.
        for log in glob.glob(os.path.join(self.site, "log", "*.txt")):
            with open(log) as f:
                self.assertNotIn("Signal:SIGTERM", f.read(), log)

        # Deleting the states file stops it.
        os.unlink(self.states_file)
        self.wait_gone(pid)
        self.assertFalse(is_listening(MYIP, 8080))

    @staticmethod
    def owner(pid):
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("Uid:"):
                    return int(line.split()[1])
        return None


if __name__ == "__main__":
    unittest.main()
