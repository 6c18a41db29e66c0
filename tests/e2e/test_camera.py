"""The daemon against a camera that cannot be reached, asks for a login or
is chosen by its number. Faults inside the stream are the reliability
suite's camera-fault table (tests/reliability/test_camera_faults.py)."""

import unittest

from harness import RelayCase, get_image, login, pull, read_records, setup_namespace


def setUpModule():
    setup_namespace()


class CameraTest(RelayCase):
    def test_unreachable_camera_then_camera_appears(self):
        self.start_forking("1")
        login()
        self.wait_log("obAXISJPEGMultiPart.Start failed")
        # While the camera cannot be reached the viewer is told so.
        self.assertEqual(get_image().body, b"ERROR_TRANSLATOR_RECEIVE:")
        pictures, record = self.start_camsim("--fps", "30")
        for seq, picture, _ in pull(3):
            self.assertTrue(picture == pictures[(seq - 1) % len(pictures)], "picture %d" % seq)
        self.assertEqual(len(read_records(record)), 1)

    def test_request_line_and_credentials_reach_the_camera(self):
        rows = [
            # configuration, camera simulator options, request line sent
            ({"translator_connect_camerano": "3"}, [],
             b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=3 HTTP/1.0\r\n"),
            # The simulated camera refuses a request without these.
            ({"channel_authentic_switch": "1", "channel_authentic_user_id": "user",
              "channel_authentic_user_password": "secret"}, ["--auth", "user:secret"],
             b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=1 HTTP/1.0\r\n"),
        ]
        for i, (config, cam_args, line) in enumerate(rows):
            with self.subTest(line=line, config=config):
                self.write_config(**config)
                _, pictures, record = self.start_channel(*cam_args, name="cam%d" % i)
                self.assertTrue(pull(1)[0][1] in pictures)
                self.assertTrue(read_records(record)[0][1].startswith(line))
                self.procs.stop_all()


if __name__ == "__main__":
    unittest.main()
