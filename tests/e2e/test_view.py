"""The viewer's browser view (ostrel-viewer --serve) on a running channel:
the demo's page as a real browser shows it, the picture stream and the
figures with several browsers at once, a browser that leaves mid-picture, a
channel that stops and comes back, and a channel that refuses the view.

The browser test runs scripts/demo.sh (which builds nothing here: the build
is up to date) with the view, loads the page in headless Chromium inside
this test's network namespace and judges the screenshots' pixels. It runs
only where OSTREL_BROWSER_TEST is set (see CMakeLists.txt) and is skipped
with a message where Chromium is not installed."""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import unittest

from harness import (CONTROL_PORT, FOREIGN_IP, MYIP, OPTION_RE, SOURCE_DIR, VIEWER, RelayCase, http,
                     is_listening, logout, read_records, run_parallel, setup_namespace, wait_for)
from harness.browser import DevTools, why_no_browser
from harness.paths import BUILD_DIR

VIEW_PORT = 8090
BOUNDARY = b"--ostrelframe"


def setUpModule():
    if not VIEWER:
        raise unittest.SkipTest("the viewer is not found in %s" % BUILD_DIR)
    setup_namespace()


def http_get(path, src=MYIP, addr=MYIP):
    return http(addr, VIEW_PORT, path, src=src, version="1.1")


def figures():
    status, headers, body = http_get("/figures.json")
    if status != 200 or headers.get("content-type") != "application/json":
        raise AssertionError("figures answer %d %r" % (status, headers))
    return json.loads(body)


def check_jpeg(data):
    if not (data.startswith(b"\xff\xd8") and data.endswith(b"\xff\xd9")):
        raise AssertionError("not a whole JPEG: %r ... %r" % (data[:8], data[-8:]))


class StreamReader:
    """One browser on /stream.mjpg, reading its parts as they come."""

    def __init__(self):
        self.sock = socket.create_connection((MYIP, VIEW_PORT), timeout=20.0)
        self.sock.sendall(b"GET /stream.mjpg HTTP/1.1\r\nHost: view\r\n\r\n")
        self.stream = self.sock.makefile("rb")
        head = self.head()
        if not head[0].startswith("HTTP/1.0 200 ") or \
                "Content-Type: multipart/x-mixed-replace; boundary=ostrelframe" not in head:
            raise AssertionError("stream head %r" % head)

    def head(self):
        lines = []
        while True:
            line = self.stream.readline()
            if not line:
                raise AssertionError("the view closed the stream")
            if line == b"\r\n":
                return lines
            lines.append(line.decode("latin-1").rstrip("\r\n"))

    def part(self):
        """(picture number, JPEG) of the next part, checked."""
        lines = self.head()
        fields = dict(line.split(": ", 1) for line in lines[1:])
        if lines[0] != BOUNDARY.decode() or fields.get("Content-Type") != "image/jpeg":
            raise AssertionError("part head %r" % lines)
        body = self.stream.read(int(fields["Content-Length"]))
        if self.stream.read(2) != b"\r\n":
            raise AssertionError("part not followed by CR LF")
        check_jpeg(body)
        return int(fields["X-Ostrel-Picture"]), body

    def close(self, reset=False):
        if reset:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.stream.close()
        self.sock.close()


# The page as the browser shows it: the live picture drawn into a canvas
# of 80 x 60 pixels (every pixel's RGB) and the banner's colour.
PAGE_JS = """(function () {
  var img = document.getElementById('live');
  if (!img.complete || !img.naturalWidth) return null;
  var c = document.createElement('canvas'); c.width = 80; c.height = 60;
  var x = c.getContext('2d'); x.drawImage(img, 0, 0, 80, 60);
  var d = x.getImageData(0, 0, 80, 60).data, px = [];
  for (var i = 0; i < d.length; i += 4) px.push([d[i], d[i + 1], d[i + 2]]);
  return JSON.stringify({pixels: px,
                         banner: getComputedStyle(document.getElementById('banner')).backgroundColor});
})()"""


# ---------------------------------------------------------------- tests

class ViewCase(RelayCase):
    def setUp(self):
        super().setUp()
        # The generated test pattern (colour bands, a moving square and the
        # frame number), so that a browser has real pictures to show.
        _, self.cam_record = self.start_camsim("--fps", "10", pictures=None)
        self.pid = self.start_forking("1")

    def start_view(self, bind=MYIP):
        self.view_out = self.path("view.out")
        with open(self.view_out, "wb") as out:
            self.view = self.spawn([VIEWER, "--control", "%s:%d" % (MYIP, CONTROL_PORT),
                                    "--bind", "%s:40000" % bind,
                                    "--serve", "%s:%d" % (MYIP, VIEW_PORT),
                                    "--states", self.states_path()], stdout=out)
        wait_for(lambda: is_listening(MYIP, VIEW_PORT), "the view to listen")

    def view_text(self):
        with open(self.view_out, encoding="latin-1") as f:
            return f.read()

    def wait_figures(self, holds, what, limit=30.0):
        """The view's figures once holds(figures) is true."""
        return wait_for(lambda: (lambda f: f if holds(f) else None)(figures()), what, limit)

    def stop_view(self):
        self.view.send_signal(signal.SIGTERM)
        self.assertEqual(self.view.wait(30), 0)


class BrowserTest(RelayCase):
    """The demo channel with its view, as an operator opens it: scripts/demo.sh
    with DEMO_VIEW_SECONDS, the page loaded by headless Chromium from the
    address the demo prints."""

    def test_the_demo_page_shows_the_live_picture(self):
        if why_no_browser():
            self.skipTest(why_no_browser())
        out_path = self.path("demo.out")
        env = dict(os.environ, OSTREL_BUILD_DIR=BUILD_DIR, OSTREL_DEMO_DIR=self.path("demo"),
                   DEMO_SECONDS="1", DEMO_VIEW_SECONDS="300", DEMO_VIEW="127.0.0.1:%d" % VIEW_PORT)
        with open(out_path, "wb") as out:
            demo = self.spawn([os.path.join(SOURCE_DIR, "scripts", "demo.sh")], env=env, stdout=out,
                              stderr=subprocess.STDOUT, start_new_session=True)
        self.addCleanup(lambda: demo.poll() is None and os.killpg(demo.pid, signal.SIGKILL))

        def demo_text():
            with open(out_path, encoding="latin-1") as f:
                return f.read()
        url = wait_for(lambda: re.search(r"== view: (http://\S+/) ", demo_text()),
                       "the demo to print the view's address", limit=120).group(1)
        self.assertEqual(url, "http://127.0.0.1:%d/" % VIEW_PORT)
        browser = DevTools(self.path("chromium"))
        self.addCleanup(browser.close)
        browser.open(url)

        def test_pattern():
            # The test pattern is colourful; an empty picture is one colour.
            page = browser.evaluate(PAGE_JS)
            if not page:
                return None
            pixels = [tuple(p) for p in page["pixels"]]
            coloured = sum(1 for r, g, b in pixels if max(r, g, b) - min(r, g, b) > 60)
            return page if len(set(pixels)) > 100 and coloured > len(pixels) // 4 else None
        first = wait_for(test_pattern, "the page to show the test pattern", limit=60)["pixels"]
        # The banner says the channel is live (green on pale green).
        wait_for(lambda: browser.evaluate(PAGE_JS)["banner"] == "rgb(216, 240, 216)", "the live banner")
        # Without a reload the page shows later pictures: the moving square
        # and the frame number differ.
        wait_for(lambda: sum(1 for a, b in zip(first, (test_pattern() or {"pixels": first})["pixels"])
                             if a != b) > len(first) // 100, "the picture on the page to change", limit=60)

        # Ctrl-C ends the view; the demo goes on and stops the channel.
        os.killpg(demo.pid, signal.SIGINT)
        self.assertEqual(demo.wait(120), 0, demo_text())
        self.assertIn("view: logout done", demo_text())
        self.assertRegex(demo_text(), r"daemon \d+ has stopped")


class StreamTest(ViewCase):
    def test_many_browsers_share_one_pull(self):
        self.start_view()
        readers = [StreamReader() for _ in range(4)]
        wait_for(lambda: figures()["streams"] == 4, "four stream viewers")

        def watch(i):
            if i >= len(readers):
                # Figures and the latest picture asked for meanwhile.
                for _ in range(10):
                    self.assertIn(figures()["channel"], ("connecting", "pulling"))
                    status, headers, body = http_get("/latest.jpg")
                    self.assertEqual((status, headers["content-type"]), (200, "image/jpeg"))
                    check_jpeg(body)
                return
            numbers = [readers[i].part()[0] for _ in range(8)]
            self.assertEqual(numbers, sorted(set(numbers)), "pictures in order, each once")
        run_parallel(len(readers) + 3, watch)

        # One browser leaves in the middle of a picture; the others go on.
        leaving = readers.pop()
        leaving.stream.read(100)
        leaving.close(reset=True)
        wait_for(lambda: figures()["streams"] == 3, "the view to notice the browser left")
        for r in readers:
            for _ in range(3):
                r.part()
            r.close()

        f = figures()
        self.assertEqual((f["channel"], f["camera"], f["logins"]), ("pulling", "delivering", 1))
        self.assertEqual(f["faults"], 0)
        self.assertGreater(f["fps"], 0)
        self.assertIsNotNone(f["latency_p50_ms"])
        self.assertTrue(OPTION_RE.match(" " + f["option"]), f["option"])
        self.assertIn("<States>NormalOperating</States>", f["states"])
        self.assertEqual(self.log_text().count("Capture start"), 1, "one login, one stream")
        self.assertEqual(len(read_records(self.cam_record)), 1)
        status, _, states = http_get("/states")
        self.assertEqual(status, 200)
        self.assertIn(b"<ProcessId>%d</ProcessId>" % self.pid, states)

        self.stop_view()
        self.assertIn("view: logout done", self.view_text())
        self.wait_log("Capture stop")

    def test_channel_that_stops_and_comes_back(self):
        self.start_view()
        self.wait_figures(lambda f: f["pictures"] >= 3, "3 pictures in the view")
        # Another client logs the channel's one viewer out: the view is
        # answered ERROR_USER_ID: and logs in again.
        logout()
        before = figures()["pictures"]
        f = self.wait_figures(lambda f: f["logins"] == 2 and f["pictures"] > before, "the view to log in again")
        self.assertGreaterEqual(f["faults"], 1)
        self.assertIn("channel error word: the channel at %s:%d answers ERROR_USER_ID:"
                      % (MYIP, CONTROL_PORT), self.view_text())

        self.stop_daemon(self.pid)
        f = self.wait_figures(lambda f: f["channel"] == "no answer", "the view to see the channel gone")
        self.assertIn("the channel at %s:%d does not answer" % (MYIP, CONTROL_PORT), f["message"])
        self.assertIsNone(f["states"], "the stopped channel removed its states file")
        status, _, page = http_get("/")
        self.assertEqual(status, 200)
        self.assertIn(b"does not answer", page)
        status, _, picture = http_get("/latest.jpg")
        self.assertEqual(status, 200, "the last picture stays on show")
        check_jpeg(picture)

        self.pid = self.start_forking("1")
        before = f["pictures"]
        f = self.wait_figures(lambda f: f["pictures"] > before + 3, "pictures after the restart")
        self.assertEqual((f["channel"], f["message"], f["logins"]), ("pulling", "", 3))
        self.assertIn("channel no answer", self.view_text())
        self.stop_view()

    def test_refusing_channel_is_named_on_the_page(self):
        self.start_view(bind=FOREIGN_IP)
        f = self.wait_figures(lambda f: f["channel"] == "error word", "the refusal")
        self.assertIn("refuses the login: ERROR_UNKNOWN_IP:", f["message"])
        self.assertEqual((f["pictures"], f["logins"]), (0, 0))
        status, headers, _ = http_get("/latest.jpg")
        self.assertEqual(status, 503)
        status, _, page = http_get("/")
        self.assertIn(b"ERROR_UNKNOWN_IP:", page)
        status, _, _ = http_get("/nothing")
        self.assertEqual(status, 404)
        self.stop_view()


if __name__ == "__main__":
    unittest.main()
