"""The daemon against a camera that misbehaves: it refuses, drops, stalls,
cuts pictures or sends what the daemon cannot take. The daemon must keep
running, reconnect, and hand the viewer only whole pictures."""

import signal
import time
import unittest

from ostrel_e2e import (RelayCase, get_image, login, read_records, setup_namespace,
                        split_stamp)


def setUpModule():
    setup_namespace()


class CameraFaultTest(RelayCase):
    def pull_until(self, done, what, limit=40.0):
        """Pulls pictures (stripped of their stamps, with their sequence
        numbers) until done(pictures) holds."""
        got = []
        deadline = time.monotonic() + limit
        while not done(got):
            if time.monotonic() > deadline:
                raise AssertionError("gave up waiting for %s after %d pictures" % (what, len(got)))
            a = get_image()
            if a.header("Content-Type") == "image/jpeg":
                seq, _, picture = split_stamp(a.body)
                got.append((seq, picture))
            else:
                self.assertIn(a.body, (b"ERROR_TRANSLATOR_RECEIVE:",))
        return got

    def test_stream_recovers_from_camera_faults(self):
        rows = [
            # fault, extra camera options, note
            ("drop", [], "connection closed between pictures"),
            # A part cut short by a close or a reset still counts as read:
            # the slot keeps what arrived and zeros for the rest.
            ("truncate", [], "connection closed inside a picture"),
            ("reset", [], "connection reset inside a picture"),
            ("stall", [], "camera stops sending; the read gives up after 2 s"),
            ("zero-length", [], "empty part"),
            ("no-length", [], "part without Content-Length"),
            ("oversize", ["--fault-arg", "900000"], "part larger than a frame slot"),
            ("garbage-head", [], "answer that is not HTTP"),
            ("status", ["--fault-arg", "503"], "camera answers 503"),
        ]
        for fault, extra, note in rows:
            with self.subTest(fault, note=note):
                self.run_fault(fault, extra)

    def run_fault(self, fault, extra):
        pictures, record = self.start_camsim(
            "--fps", "50", "--fault", fault, "--fault-at", "4", "--fault-connections", "1",
            *extra, name="cam-" + fault)
        camsim = self.children[-1]
        pid = None
        try:
            pid = self.start_forking("1")
            self.assertEqual(login().body, b"LOGIN_SUCCESS:1:\r\n")
            # Pictures from the camera's second connection prove the
            # reconnection; every picture must be one the camera sent whole.
            got = self.pull_until(lambda g: len(read_records(record)) >= 2 and len(g) >= 2 and
                                  g[-1][0] > g[0][0] + 3, "pictures after the fault")
            for seq, picture in got:
                whole = picture.rstrip(b"\0")
                if fault in ("truncate", "reset") and any(
                        len(p) == len(picture) and p.startswith(whole) for p in pictures):
                    continue
                if picture not in pictures:
                    with open(self.path("bad-%d.jpg" % seq), "wb") as f:
                        f.write(picture)
                    self.fail("picture %d (%d bytes) is not one the camera sent" %
                              (seq, len(picture)))
            self.assertEqual([s for s, _ in got], sorted(set(s for s, _ in got)))
            self.assertEqual(self.wait_states("NormalOperating")["ProcessId"], str(pid))
        finally:
            if pid:
                self.stop_daemon(pid)
            camsim.send_signal(signal.SIGTERM)
            camsim.wait(10)

    def test_unreachable_camera_then_camera_appears(self):
        pid = self.start_forking("1")
        login()
        self.wait_log("obAXISJPEGMultiPart.Start failed")
        # While the camera cannot be reached the viewer is told so.
        self.assertEqual(get_image().body, b"ERROR_TRANSLATOR_RECEIVE:")
        pictures, record = self.start_camsim("--fps", "30")
        got = self.pull_until(lambda g: len(g) >= 3, "pictures once the camera is up")
        for seq, picture in got:
            self.assertTrue(picture == pictures[(seq - 1) % len(pictures)], "picture %d" % seq)
        self.assertEqual(len(read_records(record)), 1)
        self.stop_daemon(pid)

    def test_camera_with_basic_authorisation(self):
        self.write_config(channel_authentic_switch="1", channel_authentic_user_id="user",
                          channel_authentic_user_password="secret")
        pictures, record = self.start_camsim("--fps", "30", "--auth", "user:secret")
        pid = self.start_forking("1")
        login()
        got = self.pull_until(lambda g: len(g) >= 3, "pictures from the camera with a password")
        self.assertTrue(got[0][1] in pictures)
        raw = read_records(record)[0][1]
        self.assertIn(b"\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n", raw)
        self.assertTrue(raw.startswith(b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=1 "))
        self.stop_daemon(pid)

    def test_camera_number_selects_the_camera(self):
        self.write_config(translator_connect_camerano="3")
        pictures, record = self.start_camsim("--fps", "30")
        pid = self.start_forking("1")
        login()
        self.pull_until(lambda g: len(g) >= 1, "a picture from camera 3")
        self.assertTrue(read_records(record)[0][1].startswith(
            b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=3 HTTP/1.0\r\n"))
        self.stop_daemon(pid)


if __name__ == "__main__":
    unittest.main()
