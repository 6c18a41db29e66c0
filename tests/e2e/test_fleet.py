"""Watching a fleet: the figures file each daemon writes, ostrel-ctl check,
and ostrel-fleet's /metrics, fleet page and /healthz, looked at by a real
Prometheus server and a real browser.

One host runs up to three channels, all configured in one conf/Config.txt:
01 delivering (camera at 192.0.2.1), 02 whose camera (at 192.0.2.2) refuses
the configured password, and 03 configured but never started. Each started
channel has a viewer logged in, so its camera stream is wanted.

Prometheus (Debian's prometheus) runs inside this test's network namespace
with its own configuration and a scratch storage directory; Chromium
(Debian's chromium) is driven over its DevTools pipe and the rows' colours
are read from the rendered page's computed styles."""

import json
import os
import signal
import subprocess
import unittest
import urllib.parse

from harness import (CONTROL_PORT, CONFIG_KEYS, MYIP, OTHER_CAMERA_IP, SOURCE_DIR, RelayCase, http,
                     is_listening, logout, pull, redirect_camera, request, setup_namespace, trcom_command, wait_for)
from harness.browser import DevTools, why_no_browser

PROMETHEUS = os.environ.get("OSTREL_PROMETHEUS", "/usr/bin/prometheus")
PROMTOOL = os.path.join(os.path.dirname(PROMETHEUS), "promtool")
FLEET = os.path.join(SOURCE_DIR, "deploy", "bin", "ostrel-fleet")
CTL = os.path.join(SOURCE_DIR, "deploy", "bin", "ostrel-ctl")
ALERTS = os.path.join(SOURCE_DIR, "deploy", "prometheus", "ostrel-alerts.yml")
FLEET_ADDR = ("127.0.0.1", 9470)
PROMETHEUS_ADDR = ("127.0.0.1", 9090)
STOPPED_IP = "192.0.2.3"  # channel 03's address: configured, never started


def setUpModule():
    setup_namespace()
    # Channel 02's own camera connections go to its simulated camera.
    redirect_camera(addr=OTHER_CAMERA_IP, camera_addr=OTHER_CAMERA_IP)


def get(addr, path, timeout=20.0):
    """(status, body text) of one GET."""
    status, _, body = http(addr[0], addr[1], path, timeout=timeout)
    return status, body.decode()


class FleetCase(RelayCase):
    """Channels of one working directory and the fleet endpoint over it."""

    def write_fleet_config(self):
        channels = {1: {}, 2: {"encoder_ip": OTHER_CAMERA_IP, "channel_authentic_switch": "1",
                               "channel_authentic_user_id": "root",
                               "channel_authentic_user_password": "wrong"},
                    3: {"encoder_ip": STOPPED_IP}}
        lines = ["# written by the fleet tests"]
        for n, values in channels.items():
            keys = CONFIG_KEYS + [(k, v) for k, v in values.items()
                                  if k not in dict(CONFIG_KEYS)]
            lines += ["%s_%04d=%s" % (k, n, values.get(k, v)) for k, v in keys]
        with open(self.path("conf", "Config.txt"), "w") as f:
            f.write("\n".join(lines) + "\n")

    def login(self, addr=MYIP):
        a = request("/ptippreimg.cgi?img_login=1", dst=(addr, CONTROL_PORT))
        self.assertEqual(a.body, b"LOGIN_SUCCESS:1:\r\n")

    def start_cameras(self):
        self.start_camsim("--fps", "10", pictures=None, name="cam1")
        self.cam1 = self.children[-1]
        self.start_camsim("--auth", "root:right", addr=OTHER_CAMERA_IP, pictures=None, name="cam2")

    def start_fleet_channels(self):
        """Channels 01 (delivering) and 02 (refused), each with a viewer."""
        self.write_fleet_config()
        self.start_cameras()
        self.pids = {name: self.start_forking(name) for name in ("1", "2")}
        self.login(MYIP)
        self.login(OTHER_CAMERA_IP)

    def start_fleet(self, *args):
        self.spawn([FLEET, "-C", self.work, "--listen", "%s:%d" % FLEET_ADDR] + list(args))
        wait_for(lambda: is_listening(*FLEET_ADDR), "ostrel-fleet to listen")

    def figures(self, channel=1):
        """The figures file as a dict (None while there is none)."""
        try:
            with open(self.path("mem", "Ostrel_%02d.figures" % channel)) as f:
                text = f.read()
        except FileNotFoundError:
            return None
        return dict(line.split("=", 1) for line in text.splitlines())

    def check(self, name="1", *args):
        p = subprocess.run([CTL, "-C", self.work, "check", name] + list(args),
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(p.stderr, "")
        self.assertEqual(len(p.stdout.splitlines()), 1, p.stdout)
        return p.returncode, p.stdout.strip()


class FiguresTest(FleetCase):
    def test_figures_count_what_the_channel_does(self):
        self.start_camsim()
        pid = self.start_forking("1")
        fig = wait_for(self.figures, "the figures file")
        self.assertEqual((fig["pid"], fig["channel"], fig["viewer"]), (str(pid), "1", "0"))
        self.assertEqual(fig["last_picture_age"], "")
        self.login()
        pull(3)
        for command in ("reset_postterm", "notice_update"):
            trcom_command(command)
        logout()

        fig = wait_for(lambda: (lambda f: f if f and f["logouts"] == "1" else None)(self.figures()),
                       "the logout in the figures")
        expected = {"logins": "1", "logouts": "1", "pictures_out": "3", "notice_updates": "1",
                    "reset_postterms": "1", "viewer": "0", "camera_streaming": "0",
                    "last_error": "", "stop_requests": "0"}
        self.assertEqual({k: fig[k] for k in expected}, expected)
        self.assertGreaterEqual(int(fig["camera_connects"]), 1)
        self.assertGreaterEqual(int(fig["pictures"]), 3)
        self.assertGreater(int(fig["picture_bytes"]), 3 * 1000)
        self.assertGreater(int(fig["picture_bytes_out"]), 3 * 1000)
        self.assertNotEqual(fig["last_picture_age"], "")
        self.assertEqual(sorted(os.listdir(self.path("mem"))),
                         ["Ostrel_01.figures", "Ostrel_01.pid"], "no temporary file is left")

        # The file goes with the daemon; the pid file stays, as it always has.
        self.stop_daemon(pid)
        self.assertEqual(os.listdir(self.path("mem")), ["Ostrel_01.pid"])


class HealthTest(FleetCase):
    def test_health_flips_when_the_camera_stops_and_comes_back(self):
        self.start_fleet("--max-age", "3")
        self.assertEqual(self.check("1")[0], 1, "not started yet")
        self.assertIn("1: stopped: not running", self.check("1")[1])

        self.start_camsim("--fps", "10")
        camera = self.children[-1]
        self.start_forking("1")
        wait_for(self.figures, "the figures file")
        self.assertEqual(self.check("1"), (0, "1: logged out: no viewer logged in; "
                                                "the camera stream is closed"))
        self.assertEqual(get(FLEET_ADDR, "/healthz"), (200, "ok\n"))
        self.login()
        wait_for(lambda: self.check("1", "--max-age", "3")[1].startswith("1: delivering: "),
                 "the check to see pictures")
        self.assertEqual(get(FLEET_ADDR, "/healthz"), (200, "ok\n"))

        camera.send_signal(signal.SIGTERM)
        camera.wait(10)
        status, text = wait_for(lambda: (lambda a: a if a[0] == 503 else None)(
            get(FLEET_ADDR, "/healthz")), "/healthz to fail")
        self.assertRegex(text, r"^01: reconnecting: no picture for [\d.]+ s; last camera error "
                               r"[\d.]+ s ago: (start|stream): connection refused or reset")
        code, line = self.check("1", "--max-age", "3")
        self.assertEqual(code, 1)
        self.assertRegex(line, r"^1: reconnecting: no picture for ")

        self.start_camsim("--fps", "10")
        wait_for(lambda: get(FLEET_ADDR, "/healthz") == (200, "ok\n"), "/healthz to recover",
                 limit=60)
        self.assertEqual(self.check("1", "--max-age", "3")[0], 0)


class PrometheusTest(FleetCase):
    def setUp(self):
        super().setUp()
        if not os.access(PROMETHEUS, os.X_OK):
            self.skipTest("Prometheus is not installed at %s (scripts/setup.sh installs "
                          "Debian's prometheus)" % PROMETHEUS)

    def start_prometheus(self):
        config = self.path("prometheus.yml")
        with open(config, "w") as f:
            f.write("global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
                    "rule_files: [%s]\n"
                    "scrape_configs:\n  - job_name: ostrel\n    static_configs:\n"
                    "      - targets: ['%s:%d']\n" % (json.dumps(ALERTS), *FLEET_ADDR))
        self.prometheus_log = open(self.path("prometheus.log"), "wb")
        self.addCleanup(self.prometheus_log.close)
        self.spawn([PROMETHEUS, "--config.file=" + config,
                    "--storage.tsdb.path=" + self.path("prometheus-data"),
                    "--web.listen-address=%s:%d" % PROMETHEUS_ADDR],
                   stdout=self.prometheus_log, stderr=subprocess.STDOUT)
        wait_for(lambda: self.ready(), "Prometheus to be ready", limit=60, interval=0.2)

    def ready(self):
        try:
            return get(PROMETHEUS_ADDR, "/-/ready", timeout=2)[0] == 200
        except OSError:
            return False

    def query(self, expr):
        """{channel: value} of an instant query."""
        status, text = get(PROMETHEUS_ADDR, "/api/v1/query?query=" + urllib.parse.quote(expr))
        self.assertEqual(status, 200, text)
        result = json.loads(text)["data"]["result"]
        return {r["metric"].get("channel"): float(r["value"][1]) for r in result}

    def test_prometheus_scrapes_the_channels(self):
        subprocess.run([PROMTOOL, "check", "rules", ALERTS], check=True, capture_output=True)
        self.start_fleet_channels()
        self.start_fleet()
        self.start_prometheus()

        first = wait_for(lambda: self.query('ostrel_camera_pictures_total{channel="01"} > 0'),
                         "pictures of channel 01 in Prometheus")["01"]
        wait_for(lambda: self.query('ostrel_camera_pictures_total{channel="01"} > %g' % first),
                 "the count to rise")
        self.assertEqual(self.query("ostrel_up"), {"01": 1, "02": 1, "03": 0})
        refused = wait_for(lambda: self.query(
            'ostrel_camera_start_failures_total{kind="refused_credentials"} > 0'),
            "channel 02's refusals")
        self.assertEqual(set(refused), {"02"})
        self.assertEqual(self.query("ostrel_camera_pictures_total"), {"01": self.query(
            'ostrel_camera_pictures_total{channel="01"}')["01"], "02": 0})
        self.assertEqual(self.query("ostrel_viewer_logged_in"), {"01": 1, "02": 1})
        for metric, least in (("ostrel_process_cpu_seconds_total", 0),
                              ("ostrel_process_resident_memory_bytes", 1 << 20),
                              ("ostrel_process_open_fds", 3)):
            values = self.query(metric)
            self.assertEqual(set(values), {"01", "02"}, metric)
            self.assertTrue(all(v >= least for v in values.values()), (metric, values))

        # The shipped alert fires for the channel whose viewer has had no
        # picture for 30 s, and for it alone.
        def firing():
            status, text = get(PROMETHEUS_ADDR, "/api/v1/alerts")
            return [a["labels"]["channel"] for a in json.loads(text)["data"]["alerts"]
                    if a["state"] == "firing" and
                    a["labels"]["alertname"] == "OstrelViewerWithoutPictures"]
        self.assertEqual(wait_for(firing, "the alert", limit=90, interval=1), ["02"])


class BrowserTest(FleetCase):
    """The fleet page as headless Chromium renders it."""

    def setUp(self):
        super().setUp()
        if why_no_browser():
            self.skipTest(why_no_browser())

    def test_rows_and_colours_on_the_rendered_page(self):
        self.start_fleet_channels()
        self.start_fleet("--refresh", "1")
        wait_for(lambda: (self.figures(1) or {}).get("last_picture_age"), "channel 01's pictures")
        wait_for(lambda: (self.figures(2) or {}).get("last_error_kind") == "refused_credentials",
                 "channel 02's refusal")
        browser = DevTools(self.path("chromium"))
        self.addCleanup(browser.close)
        browser.open("http://%s:%d/" % FLEET_ADDR)

        rows = wait_for(lambda: (lambda r: r if len(r) == 3 else None)((browser.evaluate(ROWS_JS) or [])),
                        "three rows on the page")
        self.assertEqual([(r["channel"], r["state"], hue(r["color"])) for r in rows],
                         [("01", "delivering", "green"), ("02", "refused", "red"),
                          ("03", "stopped", "red")])
        self.assertNotEqual(rows[0]["pictures"], "0.0")
        self.assertIn("refused credentials, HTTP 401", rows[1]["error"])
        self.assertEqual(rows[0]["background"], "rgb(223, 243, 228)")
        # Kept with the working directory (OSTREL_E2E_KEEP=1): the picture of
        # docs/fleet.png.
        browser.screenshot(self.path("fleet.png"))

        # Without a reload the page follows: channel 01's camera goes away.
        self.cam1.send_signal(signal.SIGTERM)
        self.cam1.wait(10)
        row = wait_for(lambda: (lambda r: r if r and r[0]["state"] == "reconnecting" else None)(
            (browser.evaluate(ROWS_JS) or [])), "the page to show the camera gone", limit=60)[0]
        self.assertEqual(hue(row["color"]), "amber")


ROWS_JS = """JSON.stringify(Array.from(document.querySelectorAll('#fleet tbody tr[data-channel]'))
  .map(function (tr) {
    var state = getComputedStyle(tr.cells[1]);
    return {channel: tr.cells[0].textContent, state: tr.cells[1].textContent,
            color: state.color, background: state.backgroundColor,
            pictures: tr.cells[2].textContent, error: tr.cells[6].textContent};
  }))"""


def hue(css):
    """'green', 'amber' or 'red' for an "rgb(r, g, b)" text colour."""
    r, g, b = (int(v) for v in css[css.index("(") + 1:css.index(")")].split(",")[:3])
    if g > r and g > b:
        return "green"
    if r > b and g > 2 * b and g > r // 2:
        return "amber"
    if r > 2 * g and r > 2 * b:
        return "red"
    return css


if __name__ == "__main__":
    unittest.main()
