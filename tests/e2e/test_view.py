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
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import unittest
import urllib.request
import zlib

from harness import (CONTROL_PORT, FOREIGN_IP, MYIP, OPTION_RE, SOURCE_DIR,
                     VIEWER, RelayCase, is_listening, logout, read_records, setup_namespace, wait_for)
from harness.paths import BUILD_DIR

CHROMIUM = os.environ.get("OSTREL_CHROMIUM", "/usr/bin/chromium")
VIEW_PORT = 8090
BOUNDARY = b"--ostrelframe"
# Where the page puts the picture: left, top, width, height in CSS pixels.
PICTURE_BOX = (16, 72, 640, 480)


def setUpModule():
    if not VIEWER:
        raise unittest.SkipTest("the viewer is not found in %s" % BUILD_DIR)
    setup_namespace()


# ------------------------------------------------------------ HTTP client

def http_get(path, src=MYIP, timeout=20.0):
    """(status, headers dict with lower-case names, body) of one GET."""
    sock = socket.create_connection((MYIP, VIEW_PORT), timeout=timeout,
                                    source_address=(src, 0))
    try:
        sock.sendall(b"GET %s HTTP/1.1\r\nHost: view\r\n\r\n" % path.encode())
        data = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                break
            data += chunk
    finally:
        sock.close()
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()
    return int(lines[0].split()[1]), headers, body


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
        self.buf = b""
        head = self._until(b"\r\n\r\n")
        if not head.startswith(b"HTTP/1.0 200 ") or \
                b"Content-Type: multipart/x-mixed-replace; boundary=ostrelframe" not in head:
            raise AssertionError("stream head %r" % head)

    def _more(self):
        chunk = self.sock.recv(65536)
        if not chunk:
            raise AssertionError("the view closed the stream")
        self.buf += chunk

    def _until(self, mark):
        while mark not in self.buf:
            self._more()
        item, _, self.buf = self.buf.partition(mark)
        return item + mark

    def part(self):
        """(picture number, JPEG) of the next part, checked."""
        head = self._until(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        if lines[0] != BOUNDARY.decode():
            raise AssertionError("part starts with %r" % lines[0])
        fields = dict(line.split(": ", 1) for line in lines[1:] if line)
        if fields.get("Content-Type") != "image/jpeg":
            raise AssertionError("part head %r" % fields)
        length = int(fields["Content-Length"])
        while len(self.buf) < length + 2:
            self._more()
        body, tail, self.buf = self.buf[:length], self.buf[length:length + 2], self.buf[length + 2:]
        if tail != b"\r\n":
            raise AssertionError("part not followed by CR LF: %r" % tail)
        check_jpeg(body)
        return int(fields["X-Ostrel-Picture"]), body

    def close(self):
        self.sock.close()


# ---------------------------------------------------------------- PNG

def read_png(path):
    """(width, height, rows of RGB tuples) of an 8-bit RGB or RGBA PNG."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise AssertionError("%s is not a PNG" % path)
    pos, idat, header = 8, b"", None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        chunk = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", chunk)
        elif kind == b"IDAT":
            idat += chunk
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    if depth != 8 or colour not in (2, 6) or interlace:
        raise AssertionError("unexpected PNG kind %r" % (header,))
    bpp = 3 if colour == 2 else 4
    raw = zlib.decompress(idat)
    stride = width * bpp
    rows, prev = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        if kind == 1:
            for i in range(bpp, stride):
                line[i] = (line[i] + line[i - bpp]) & 255
        elif kind == 2:
            line = bytearray((a + b) & 255 for a, b in zip(line, prev))
        elif kind == 3:
            for i in range(stride):
                left = line[i - bpp] if i >= bpp else 0
                line[i] = (line[i] + ((left + prev[i]) >> 1)) & 255
        elif kind == 4:
            for i in range(stride):
                a = line[i - bpp] if i >= bpp else 0
                b, c = prev[i], prev[i - bpp] if i >= bpp else 0
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                pred = a if pa <= pb and pa <= pc else (b if pb <= pc else c)
                line[i] = (line[i] + pred) & 255
        rows.append([tuple(line[x * bpp:x * bpp + 3]) for x in range(width)])
        prev = line
    return width, height, rows


def picture_pixels(rows):
    """The pixels of the picture's place on the page, every fourth."""
    left, top, width, height = PICTURE_BOX
    return [rows[y][x] for y in range(top + 2, top + height - 2, 4)
            for x in range(left + 2, left + width - 2, 4)]


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

    def wait_pictures(self, count, limit=30.0):
        return wait_for(lambda: (lambda f: f if f["pictures"] >= count else None)(figures()),
                        "%d pictures in the view" % count, limit)

    def stop_view(self):
        self.view.send_signal(signal.SIGTERM)
        self.assertEqual(self.view.wait(30), 0)


class BrowserTest(unittest.TestCase):
    """The demo channel with its view, as an operator opens it: scripts/demo.sh
    with DEMO_VIEW_SECONDS, the page loaded by headless Chromium from the
    address the demo prints."""

    def setUp(self):
        if not os.environ.get("OSTREL_BROWSER_TEST"):
            self.skipTest("the browser test runs in the release build only")
        if not os.access(CHROMIUM, os.X_OK):
            self.skipTest("Chromium is not installed at %s (scripts/setup.sh installs Debian's "
                          "chromium where it can)" % CHROMIUM)
        self.work = tempfile.mkdtemp(prefix="ostrel-view-")
        self.addCleanup(self.cleanup)
        self.demo = None

    def cleanup(self):
        if self.demo and self.demo.poll() is None:
            os.killpg(self.demo.pid, signal.SIGKILL)
            self.demo.wait()
        if os.environ.get("OSTREL_E2E_KEEP"):
            print("kept", self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def screenshot(self, url, name):
        path = os.path.join(self.work, name)
        subprocess.run([CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu",
                        "--hide-scrollbars", "--user-data-dir=" + os.path.join(self.work, "chromium"),
                        "--window-size=1000,900", "--screenshot=" + path, url],
                       check=True, timeout=60, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        return read_png(path)

    def test_the_demo_page_shows_the_live_picture(self):
        out_path = os.path.join(self.work, "demo.out")
        env = dict(os.environ, OSTREL_BUILD_DIR=BUILD_DIR,
                   OSTREL_DEMO_DIR=os.path.join(self.work, "demo"), DEMO_SECONDS="1",
                   DEMO_VIEW_SECONDS="300", DEMO_VIEW="127.0.0.1:%d" % VIEW_PORT)
        with open(out_path, "wb") as out:
            self.demo = subprocess.Popen([os.path.join(SOURCE_DIR, "scripts", "demo.sh")],
                                         env=env, stdout=out, stderr=subprocess.STDOUT,
                                         start_new_session=True)

        def demo_text():
            with open(out_path, encoding="latin-1") as f:
                return f.read()
        m = wait_for(lambda: re.search(r"== view: (http://\S+/) ", demo_text()),
                     "the demo to print the view's address", limit=120)
        url = m.group(1)
        self.assertEqual(url, "http://127.0.0.1:%d/" % VIEW_PORT)

        def enough_pictures():
            try:
                with urllib.request.urlopen(url + "figures.json", timeout=10) as r:
                    return json.load(r)["pictures"] >= 3
            except OSError:
                return False
        wait_for(enough_pictures, "pictures in the view")

        width, height, rows = self.screenshot(url, "page-1.png")
        self.assertEqual((width, height), (1000, 900))
        first = picture_pixels(rows)
        # The test pattern is colourful; the empty picture box is one dark
        # grey and the page around it is light grey and white.
        colours = set(first)
        coloured = sum(1 for r, g, b in first if max(r, g, b) - min(r, g, b) > 60)
        self.assertGreater(len(colours), 100, "the picture box is nearly one colour")
        self.assertGreater(coloured, len(first) // 4, "the picture box is not the test pattern")
        # The banner says the channel is live (green on pale green).
        self.assertEqual(rows[80][970], (0xd8, 0xf0, 0xd8))

        # A later shot shows a later picture: the moving square and the
        # frame number differ. The camera sends 25 different pictures in
        # turn, so a shot that hits the same one is taken again.
        for attempt in range(5):
            _, _, rows = self.screenshot(url, "page-%d.png" % (attempt + 2))
            second = picture_pixels(rows)
            changed = sum(1 for a, b in zip(first, second) if a != b)
            if changed > len(first) // 100:
                break
        else:
            self.fail("the picture did not change in five screenshots")

        # Ctrl-C ends the view; the demo goes on and stops the channel.
        os.killpg(self.demo.pid, signal.SIGINT)
        self.assertEqual(self.demo.wait(120), 0, demo_text())
        text = demo_text()
        self.assertIn("view: logout done", text)
        self.assertRegex(text, r"daemon \d+ has stopped")


class StreamTest(ViewCase):
    def test_many_browsers_share_one_pull(self):
        self.start_view()
        readers = [StreamReader() for _ in range(4)]
        wait_for(lambda: figures()["streams"] == 4, "four stream viewers")
        errors, counts = [], [0] * len(readers)

        def watch(i, reader, parts):
            try:
                last = 0
                for _ in range(parts):
                    number, _ = reader.part()
                    if number <= last:
                        raise AssertionError("picture %d after %d" % (number, last))
                    last = number
                    counts[i] += 1
            except Exception as e:  # pylint: disable=broad-except
                errors.append(e)

        def poll_figures():
            try:
                for _ in range(10):
                    f = figures()
                    self.assertIn(f["channel"], ("connecting", "pulling"))
                    status, headers, body = http_get("/latest.jpg")
                    self.assertEqual((status, headers["content-type"]), (200, "image/jpeg"))
                    check_jpeg(body)
            except Exception as e:  # pylint: disable=broad-except
                errors.append(e)

        threads = [threading.Thread(target=watch, args=(i, r, 8)) for i, r in enumerate(readers)]
        threads += [threading.Thread(target=poll_figures) for _ in range(3)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(120)
        self.assertEqual(errors, [])
        self.assertEqual(counts, [8] * 4)

        # One browser leaves in the middle of a picture; the others go on.
        leaving = readers.pop()
        while len(leaving.buf) < 100:
            leaving._more()  # pylint: disable=protected-access
        leaving.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        leaving.close()
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
        self.wait_pictures(3)
        # Another client logs the channel's one viewer out: the view is
        # answered ERROR_USER_ID: and logs in again.
        self.assertEqual(logout().body, b"LOGOUT_SUCCESS:1:IMAGE\r\n")
        before = figures()["pictures"]
        f = wait_for(lambda: (lambda f: f if f["logins"] == 2 and f["pictures"] > before
                              else None)(figures()), "the view to log in again")
        self.assertGreaterEqual(f["faults"], 1)
        self.assertIn("channel error word: the channel at %s:%d answers ERROR_USER_ID:"
                      % (MYIP, CONTROL_PORT), self.view_text())

        self.stop_daemon(self.pid)
        f = wait_for(lambda: (lambda f: f if f["channel"] == "no answer" else None)(figures()),
                     "the view to see the channel gone")
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
        f = wait_for(lambda: (lambda f: f if f["pictures"] > before + 3 else None)(figures()),
                     "pictures after the restart")
        self.assertEqual((f["channel"], f["message"], f["logins"]), ("pulling", "", 3))
        self.assertIn("channel no answer", self.view_text())
        self.stop_view()

    def test_refusing_channel_is_named_on_the_page(self):
        self.start_view(bind=FOREIGN_IP)
        f = wait_for(lambda: (lambda f: f if f["channel"] == "error word" else None)(figures()),
                     "the refusal")
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
