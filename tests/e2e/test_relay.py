"""The picture path through the running daemon: a viewer logs in on the
control port, pulls the camera's pictures one by one and logs out; the
camera stream is open only in between. A HEAD request and a viewer that
falls behind the ring. Faults of the camera are the reliability suite's
(tests/reliability/test_camera_faults.py)."""

import time
import unittest

from harness import (CAMERA_PORT, MYIP, OPTION_RE, RelayCase, check_head, established_to,
                     exchange, get_image, local_epoch_ms, logout, parse_answers, pull,
                     read_records, setup_namespace, wait_for)


def setUpModule():
    setup_namespace()


def text_answer(answer):
    m = check_head(answer)
    return m.group("status"), m.group("type"), answer.body


class PictureStreamTest(RelayCase):
    def setUp(self):
        super().setUp()
        # One picture near the frame buffer's size among small ones; the
        # configured camera number reaches the camera's request line.
        self.write_config(translator_connect_camerano="3")
        self.pid, self.pictures, self.cam_record = self.start_channel(
            fps="40", sizes=[3000, 40000, 700000, 12000, 65000, 1, 250000, 9000])

    def test_pictures_arrive_in_order_byte_for_byte(self):
        before = local_epoch_ms()
        got = pull(24)
        after = local_epoch_ms()
        for seq, picture, a in got:
            m = check_head(a)
            self.assertEqual((m.group("status"), m.group("type")), ("200 OK", "image/jpeg"))
            self.assertEqual(int(m.group("length")), len(a.body))
            extra = m.group("extra").split("\r\n")
            self.assertEqual(extra[0], "TarnDataType: Ostrel")
            self.assertTrue(extra[1].startswith("IMAGE_ID0000:"), extra)
            self.assertEqual(extra[2:], ["OFFSET_TIME: 0", ""])
            om = OPTION_RE.match(extra[1][len("IMAGE_ID0000:"):])
            self.assertTrue(om, extra[1])
            # Arrival time in local milliseconds, taken by the daemon
            # between our login and the last answer.
            self.assertTrue(before - 2000 <= int(om.group(1), 16) <= after + 2000, om.group(1))
            # One camera connection, so part n carries picture (n-1) mod 8.
            self.assertTrue(picture == self.pictures[(seq - 1) % len(self.pictures)],
                            "picture %d differs from what the camera sent" % seq)

        records = read_records(self.cam_record)
        self.assertEqual(len(records), 1, "the stream stays open while logged in")
        peer, raw = records[0]
        self.assertTrue(peer.startswith(MYIP + ":"), peer)
        self.assertEqual(raw, b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=3 HTTP/1.0\r\n"
                              b"User-Agent: Tarnmoor\r\n\r\n")

        self.assertEqual(text_answer(logout()), ("200 OK", "text/plain", b"LOGOUT_SUCCESS:1:IMAGE\r\n"))
        wait_for(lambda: not established_to(MYIP, CAMERA_PORT), "the camera stream to close")
        self.assertEqual(text_answer(get_image()), ("200 OK", "text/plain", b"ERROR_USER_ID:"))
        self.assertEqual(len(read_records(self.cam_record)), 1)

    def test_head_request_gets_the_image_head_without_body(self):
        pull(1)

        def image_head():
            raw = exchange(b"HEAD /ptippreimg.cgi?get_image=1&img_user_id=1 HTTP/1.0\r\n\r\n")
            a = parse_answers(raw, head_only=True)[0]
            return (a, raw) if a.header("Content-Type") == "image/jpeg" else None

        a, raw = wait_for(image_head, "an image answer to HEAD")
        self.assertTrue(raw.endswith(b"\r\n\r\n"), "nothing after the head")
        # The picture plus the camera's stamp segment (4 + 23 bytes and the
        # digits of the sequence number and the 16-digit time).
        stamp = int(a.header("Content-Length")) - 4 - 23 - 16
        self.assertTrue(any(1 <= stamp - len(p) <= 6 for p in self.pictures), stamp)


class SlowViewerTest(RelayCase):
    def test_a_slow_viewer_skips_to_newer_pictures_that_are_still_whole(self):
        # A borrowed picture stays intact for four frame periods after it
        # is handed out, so the camera runs slowly enough that sending even
        # under the sanitizers stays inside that window.
        _, pictures, _ = self.start_channel(fps="10")
        first = pull(1)[0][0]
        # The viewer pauses (the pause is the scenario, not a wait for an
        # event): the ring of six slots is overwritten meanwhile, including
        # the slot the last picture was sent from.
        time.sleep(2)
        got = pull(4)
        self.assertGreater(got[0][0], first + 6, "pictures skip ahead, then come in order")
        for seq, picture, _ in got:
            self.assertTrue(picture in pictures, "picture %d was changed" % seq)


if __name__ == "__main__":
    unittest.main()
