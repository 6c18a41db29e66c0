"""The daemon against cameras that ask for Digest authentication: real web
servers from Debian (lighttpd's mod_auth, apache2's mod_auth_digest) put in
front of the simulated camera's stream as reverse proxies, and the simulated
camera itself for what no real server does on demand (a nonce that goes
stale after a set number of requests).

Each web server is started by the test, in the test's namespace, with its
own configuration in the test's working directory. It listens where the
daemon's camera connection is redirected to (CAMERA_PORT) and passes the
stream on from the simulated camera behind it (BACKEND_PORT)."""

import hashlib
import os
import re
import shutil
import subprocess
import time
import unittest

from harness import (CAMERA_PORT, MYIP, RelayCase, get_image, is_listening, is_real_root,
                     login, read_records, setup_namespace, split_stamp, wait_for)

LIGHTTPD = shutil.which("lighttpd", path="/usr/sbin:/usr/bin:/sbin")
APACHE = shutil.which("apache2", path="/usr/sbin:/usr/bin:/sbin")
APACHE_MODULES = "/usr/lib/apache2/modules"
BACKEND_PORT = 8082
USER, PASSWORD = "viewer", "s3cret pass"
REALM = "Camera Digest"
REFUSAL = "camera refused the credentials (Digest realm \"%s\" algorithm %s)"
BACKOFF = "obAXISJPEGMultiPart.Start failed"


def setUpModule():
    setup_namespace()


def htdigest_line(realm, algorithm="MD5"):
    hash_ = hashlib.sha256 if algorithm == "SHA-256" else hashlib.md5
    return "%s:%s:%s\n" % (USER, realm, hash_(("%s:%s:%s" % (USER, realm, PASSWORD)).encode()).hexdigest())


class DigestCase(RelayCase):
    def pull_pictures(self, pictures, count, limit=40.0):
        """Pulls until count pictures came; each must be one of the camera's
        pictures byte for byte (the stamp taken out)."""
        got = 0
        deadline = time.monotonic() + limit
        while got < count:
            if time.monotonic() > deadline:
                raise AssertionError("gave up waiting for pictures after %d; log:\n%s"
                                     % (got, self.log_text()[-3000:]))
            a = get_image()
            if a.header("Content-Type") == "image/jpeg":
                seq, _, picture = split_stamp(a.body)
                self.assertTrue(picture in pictures, "picture %d" % seq)
                got += 1
            else:
                self.assertEqual(a.body, b"ERROR_TRANSLATOR_RECEIVE:")

    def assert_refused(self, realm, algorithm):
        self.wait_log(REFUSAL % (realm, algorithm))
        # The back-off of every failed start applies, and nothing arrives.
        self.wait_log("obAXISJPEGMultiPart.Start failed ::2302")
        for _ in range(3):
            self.assertEqual(get_image().body, b"ERROR_TRANSLATOR_RECEIVE:")

    def use_credentials(self, password=PASSWORD):
        self.write_config(channel_authentic_switch="1", channel_authentic_user_id=USER,
                          channel_authentic_user_password=password)

    def start_backend(self):
        """The simulated camera behind the web server, without a password."""
        return self.start_camsim("--fps", "30", port=BACKEND_PORT)[0]

    def wait_server(self, proc, what, log):
        wait_for(lambda: proc.poll() is not None or is_listening(MYIP, CAMERA_PORT),
                 "%s to listen" % what)
        if proc.poll() is not None:
            with open(log, errors="replace") as f:
                raise AssertionError("%s ended: %s" % (what, f.read()))


class SimulatedCameraDigestTest(DigestCase):
    def test_stale_nonce_renewed_without_back_off(self):
        # Each connection carries three pictures; each nonce serves one.
        self.use_credentials()
        pictures, record = self.start_camsim("--fps", "30", "--frames", "3", "--auth",
                                             "%s:%s" % (USER, PASSWORD), "--auth-digest", "MD5,auth",
                                             "--nonce-uses", "1")
        pid = self.start_forking("1")
        login()
        self.pull_pictures(pictures, 10)
        self.assertNotIn(BACKOFF, self.log_text())
        requests = [raw for _, raw in read_records(record)]
        self.assertTrue(requests[0].startswith(
            b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=1 HTTP/1.0\r\nAuthorization: Basic "))
        nc = [re.search(rb", nc=(\w+), ", r).group(1) for r in requests[1:5]]
        nonces = [re.search(rb'nonce="(\w+)"', r).group(1) for r in requests[1:5]]
        # A fresh answer, the reconnect reusing its nonce (stale now), the
        # renewed answer on a new nonce, its reuse.
        self.assertEqual(nc, [b"00000001", b"00000002", b"00000001", b"00000002"])
        self.assertEqual(nonces[0], nonces[1])
        self.assertNotEqual(nonces[1], nonces[2])
        self.assertEqual(nonces[2], nonces[3])
        self.stop_daemon(pid)

    def test_wrong_password_is_a_refusal_with_back_off(self):
        self.use_credentials("wrong")
        self.start_camsim("--fps", "30", "--auth", "%s:%s" % (USER, PASSWORD),
                          "--auth-digest", "SHA-256-sess,auth")
        pid = self.start_forking("1")
        login()
        self.assert_refused("AXIS_SIMULATOR", "SHA-256-sess")
        self.stop_daemon(pid)


class LighttpdDigestTest(DigestCase):
    def setUp(self):
        if not LIGHTTPD:
            self.skipTest("lighttpd is not installed (scripts/setup.sh installs it)")
        super().setUp()

    def start_lighttpd(self, algorithm):
        web = self.path("lighttpd")
        os.makedirs(web)
        users = os.path.join(web, "htdigest")
        with open(users, "w") as f:
            f.write(htdigest_line(REALM, algorithm))
        log = os.path.join(web, "error.log")
        with open(os.path.join(web, "lighttpd.conf"), "w") as f:
            f.write('server.modules = ( "mod_auth", "mod_authn_file", "mod_proxy" )\n'
                    'server.document-root = "%s"\n'
                    'server.errorlog = "%s"\n'
                    'server.bind = "%s"\nserver.port = %d\n'
                    # The camera's stream never ends: pass it on as it comes.
                    'server.stream-response-body = 2\n'
                    'auth.backend = "htdigest"\n'
                    'auth.backend.htdigest.userfile = "%s"\n'
                    'auth.require = ( "/axis-cgi/" => ( "method" => "digest", "realm" => "%s",'
                    ' "algorithm" => "%s", "require" => "valid-user" ) )\n'
                    'proxy.server = ( "/axis-cgi/" => ( ( "host" => "%s", "port" => %d ) ) )\n'
                    % (web, log, MYIP, CAMERA_PORT, users, REALM, algorithm, MYIP, BACKEND_PORT))
        proc = self.spawn([LIGHTTPD, "-D", "-f", os.path.join(web, "lighttpd.conf")],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait_server(proc, "lighttpd", log)

    def deliver(self, algorithm):
        self.use_credentials()
        pictures = self.start_backend()
        self.start_lighttpd(algorithm)
        pid = self.start_forking("1")
        login()
        self.pull_pictures(pictures, 5)
        self.assertNotIn(BACKOFF, self.log_text())
        self.assertIn('Digest challenge (realm "%s" algorithm %s qop auth)' % (REALM, algorithm),
                      self.log_text())
        self.stop_daemon(pid)

    def test_md5_delivers_the_pictures(self):
        self.deliver("MD5")

    def test_sha256_delivers_the_pictures(self):
        self.deliver("SHA-256")

    def test_wrong_password_is_refused(self):
        self.use_credentials("not the password")
        self.start_backend()
        self.start_lighttpd("SHA-256")
        pid = self.start_forking("1")
        login()
        self.assert_refused(REALM, "SHA-256")
        self.stop_daemon(pid)


class ApacheDigestTest(DigestCase):
    def setUp(self):
        if not APACHE:
            self.skipTest("apache2 is not installed (scripts/setup.sh installs it)")
        if not is_real_root():
            self.skipTest("needs root: apache2 changes to the user www-data")
        super().setUp()

    def start_apache(self):
        web = self.path("apache")
        os.makedirs(os.path.join(web, "run"))
        users = os.path.join(web, "htdigest")
        with open(users, "w") as f:
            f.write(htdigest_line(REALM))
        # apache2's children run as www-data and read the user file.
        os.chmod(self.work, 0o755)
        os.chmod(web, 0o755)
        os.chmod(users, 0o644)
        log = os.path.join(web, "error.log")
        modules = ["mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_digest",
                   "proxy", "proxy_http"]
        conf = "".join("LoadModule %s_module %s/mod_%s.so\n" % (m, APACHE_MODULES, m) for m in modules)
        conf += ('ServerName camera.test\n'
                 'Listen %s:%d\n'
                 'User www-data\nGroup www-data\n'
                 'PidFile %s/apache.pid\n'
                 'DefaultRuntimeDir %s/run\n'
                 'Mutex file:%s/run default\n'
                 'ErrorLog %s\n'
                 'LogLevel warn\n'
                 '<Location "/axis-cgi/">\n'
                 '  AuthType Digest\n  AuthName "%s"\n  AuthDigestProvider file\n'
                 '  AuthUserFile %s\n  Require valid-user\n'
                 '</Location>\n'
                 # flushpackets: each picture goes on as it comes.
                 'ProxyPass "/axis-cgi/" "http://%s:%d/axis-cgi/" flushpackets=on\n'
                 % (MYIP, CAMERA_PORT, web, web, web, log, REALM, users, MYIP, BACKEND_PORT))
        with open(os.path.join(web, "apache2.conf"), "w") as f:
            f.write(conf)
        proc = self.spawn([APACHE, "-f", os.path.join(web, "apache2.conf"), "-DFOREGROUND"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait_server(proc, "apache2", log)

    def test_md5_delivers_the_pictures(self):
        self.use_credentials()
        pictures = self.start_backend()
        self.start_apache()
        pid = self.start_forking("1")
        login()
        self.pull_pictures(pictures, 5)
        self.assertNotIn(BACKOFF, self.log_text())
        self.stop_daemon(pid)

    def test_wrong_password_is_refused(self):
        self.use_credentials("not the password")
        self.start_backend()
        self.start_apache()
        pid = self.start_forking("1")
        login()
        self.assert_refused(REALM, "MD5")
        self.stop_daemon(pid)


if __name__ == "__main__":
    unittest.main()
