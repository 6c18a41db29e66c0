"""A real browser for the tests: Debian's headless Chromium, driven over
its DevTools pipe; the scripts a test runs in the page read what it shows
(computed styles, the pixels of a picture)."""

import base64
import json
import os
import subprocess
import time

CHROMIUM = os.environ.get("OSTREL_CHROMIUM", "/usr/bin/chromium")


def why_no_browser():
    """None when the browser tests run here, else the reason to skip."""
    if not os.environ.get("OSTREL_BROWSER_TEST"):
        return "the browser tests run in the release build only"
    if not os.access(CHROMIUM, os.X_OK):
        return ("Chromium is not installed at %s (scripts/setup.sh installs Debian's chromium where it can)"
                % CHROMIUM)
    return None


class DevTools:
    """Headless Chromium driven over --remote-debugging-pipe: JSON messages
    ended by a NUL byte, written to its descriptor 3 and read from its 4."""

    def __init__(self, profile, chromium=CHROMIUM):
        to_child, self.write_fd = os.pipe()
        self.read_fd, from_child = os.pipe()

        def plumb():
            # Moved above 4 first, so that neither lands on the other.
            high_in = os.dup2(to_child, 100)
            high_out = os.dup2(from_child, 101)
            os.dup2(high_in, 3)
            os.dup2(high_out, 4)
        self.proc = subprocess.Popen(
            [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe",
             "--user-data-dir=" + profile, "--window-size=1400,600", "about:blank"],
            preexec_fn=plumb, close_fds=False, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        os.close(to_child)
        os.close(from_child)
        self.buf, self.next_id, self.session = b"", 0, None

    def call(self, method, session=None, **params):
        self.next_id += 1
        msg = {"id": self.next_id, "method": method, "params": params}
        if session:
            msg["sessionId"] = session
        os.write(self.write_fd, json.dumps(msg).encode() + b"\0")
        deadline = time.monotonic() + 60
        while True:
            while b"\0" in self.buf:
                raw, self.buf = self.buf.split(b"\0", 1)
                reply = json.loads(raw)
                if reply.get("id") == self.next_id:
                    if "error" in reply:
                        raise AssertionError("%s: %s" % (method, reply["error"]))
                    return reply["result"]
            if time.monotonic() > deadline:
                raise AssertionError("Chromium did not answer %s" % method)
            chunk = os.read(self.read_fd, 65536)
            if not chunk:
                raise AssertionError("Chromium closed its pipe")
            self.buf += chunk

    def open(self, url):
        target = self.call("Target.createTarget", url=url)["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target,
                                 flatten=True)["sessionId"]

    def evaluate(self, expression):
        """The value of a script expression in the open page (a JSON text
        the script makes, decoded; None while it gives none)."""
        result = self.call("Runtime.evaluate", self.session, expression=expression,
                           returnByValue=True)["result"]
        return json.loads(result["value"]) if result.get("value") else None

    def screenshot(self, path):
        data = self.call("Page.captureScreenshot", self.session, format="png")["data"]
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))

    def close(self):
        try:
            self.call("Browser.close")
        except (AssertionError, OSError):
            pass
        try:
            self.proc.wait(30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        os.close(self.write_fd)
        os.close(self.read_fd)

