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
import unittest

from harness import (CAMERA_PORT, MYIP, RelayCase, get_image, is_listening, is_real_root, login, pull,
                     read_records, setup_namespace, wait_for)

LIGHTTPD = shutil.which("lighttpd", path="/usr/sbin:/usr/bin:/sbin")
APACHE = shutil.which("apache2", path="/usr/sbin:/usr/bin:/sbin")
APACHE_MODULES = "/usr/lib/apache2/modules"
BACKEND_PORT = 8082
USER, PASSWORD = "viewer", "s3cret pass"
REALM = "Camera Digest"
BACKOFF = "obAXISJPEGMultiPart.Start failed"


def setUpModule():
    setup_namespace()


def htdigest_line(realm, algorithm="MD5"):
    hash_ = hashlib.sha256 if algorithm == "SHA-256" else hashlib.md5
    return "%s:%s:%s\n" % (USER, realm, hash_(("%s:%s:%s" % (USER, realm, PASSWORD)).encode()).hexdigest())


class DigestTest(RelayCase):
    def use_credentials(self, password=PASSWORD):
        self.write_config(channel_authentic_switch="1", channel_authentic_user_id=USER,
                          channel_authentic_user_password=password)

    def check_outcome(self, pictures, realm, algorithm, delivers):
        """Pictures of the camera's come through, or the refusal is logged
        and the back-off of every failed start applies."""
        seen = len(self.log_text())
        self.start_forking("1")
        login()
        if delivers:
            for _, picture, _ in pull(5):
                self.assertTrue(picture in pictures)
            self.assertNotIn(BACKOFF, self.log_text()[seen:])
            self.assertIn('Digest challenge (realm "%s" algorithm %s qop auth)' % (realm, algorithm),
                          self.log_text()[seen:])
        else:
            wait_for(lambda: 'camera refused the credentials (Digest realm "%s" algorithm %s)'
                     % (realm, algorithm) in self.log_text()[seen:], "the refusal")
            self.wait_log(BACKOFF + " ::2302")
            for _ in range(3):
                self.assertEqual(get_image().body, b"ERROR_TRANSLATOR_RECEIVE:")

    def test_stale_nonce_renewed_without_back_off(self):
        # Each connection carries three pictures; each nonce serves one.
        self.use_credentials()
        pictures, record = self.start_camsim("--fps", "30", "--frames", "3", "--auth",
                                             "%s:%s" % (USER, PASSWORD), "--auth-digest", "MD5,auth",
                                             "--nonce-uses", "1")
        self.start_forking("1")
        login()
        for _, picture, _ in pull(10):
            self.assertTrue(picture in pictures)
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

    def test_real_web_servers_and_the_simulated_camera(self):
        rows = [
            # server, algorithm, password right
            ("lighttpd", "MD5", True), ("lighttpd", "SHA-256", True), ("lighttpd", "SHA-256", False),
            ("apache2", "MD5", True), ("apache2", "MD5", False),
            ("simulator", "SHA-256-sess", False),
        ]
        for i, (server, algorithm, right) in enumerate(rows):
            with self.row(server=server, algorithm=algorithm, right=right):
                if server == "lighttpd" and not LIGHTTPD:
                    self.skipTest("lighttpd is not installed (scripts/setup.sh installs it)")
                if server == "apache2" and not (APACHE and is_real_root()):
                    self.skipTest("apache2 is not installed (scripts/setup.sh installs it) or not root "
                                  "(it changes to the user www-data)")
                self.use_credentials(PASSWORD if right else "not the password")
                if server == "simulator":
                    pictures, _ = self.start_camsim("--fps", "30", "--auth", "%s:%s" % (USER, PASSWORD),
                                                    "--auth-digest", algorithm + ",auth", name="cam%d" % i)
                    self.check_outcome(pictures, "AXIS_SIMULATOR", algorithm, right)
                    continue
                # The simulated camera behind the web server, without a password.
                pictures, _ = self.start_camsim("--fps", "30", port=BACKEND_PORT, name="cam%d" % i)
                web = self.path("web%d" % i)
                os.makedirs(os.path.join(web, "run"))
                (self.start_lighttpd if server == "lighttpd" else self.start_apache)(web, algorithm)
                self.check_outcome(pictures, REALM, algorithm, right)

    def start_server(self, argv, what, log):
        proc = self.spawn(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(lambda: proc.poll() is not None or is_listening(MYIP, CAMERA_PORT),
                 "%s to listen" % what)
        if proc.poll() is not None:
            with open(log, errors="replace") as f:
                raise AssertionError("%s ended: %s" % (what, f.read()))

    def start_lighttpd(self, web, algorithm):
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
        self.start_server([LIGHTTPD, "-D", "-f", os.path.join(web, "lighttpd.conf")], "lighttpd", log)

    def start_apache(self, web, algorithm):
        users = os.path.join(web, "htdigest")
        with open(users, "w") as f:
            f.write(htdigest_line(REALM, algorithm))
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
        self.start_server([APACHE, "-f", os.path.join(web, "apache2.conf"), "-DFOREGROUND"], "apache2", log)


if __name__ == "__main__":
    unittest.main()
