"""The daemon against a camera that cannot be reached, asks for a login or
is chosen by its number. Faults inside the stream are the reliability
suite's camera-fault table (tests/reliability/test_camera_faults.py)."""

import time
import unittest

from harness import (RelayCase, get_image, login, read_records, setup_namespace,
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
        # The simulated camera refuses a request without these credentials;
        # the request line itself is the Axis client's unit test.
        pictures, _ = self.start_camsim("--fps", "30", "--auth", "user:secret")
        pid = self.start_forking("1")
        login()
        got = self.pull_until(lambda g: len(g) >= 3, "pictures from the camera with a password")
        self.assertTrue(got[0][1] in pictures)
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
