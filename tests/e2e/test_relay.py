"""The picture path through the running daemon: a viewer logs in on the
control port, pulls the camera's pictures one by one and logs out; the
camera stream is open only in between. Also the text answers of the
pre-image protocol, foreign clients and malformed requests."""

import time
import unittest

from harness import (CAMERA_PORT, MYIP, OPTION_RE, RelayCase, check_head, established_to,
                     exchange, get_image, local_epoch_ms, login, logout, parse_answers,
                     read_records, setup_namespace, split_stamp, wait_for)


def setUpModule():
    setup_namespace()


def text_answer(answer):
    m = check_head(answer)
    return m.group("status"), m.group("type"), answer.body


class PictureStreamTest(RelayCase):
    def setUp(self):
        super().setUp()
        # One picture near the frame buffer's size among small ones.
        self.pictures, self.cam_record = self.start_camsim(
            "--fps", "40", sizes=[3000, 40000, 700000, 12000, 65000, 1, 250000, 9000])
        self.pid = self.start_forking("1")

    def pull(self, count, limit=30.0):
        """Fetches count pictures; ERROR_TRANSLATOR_RECEIVE means "not yet"."""
        got = []
        deadline = time.monotonic() + limit
        while len(got) < count:
            self.assertLess(time.monotonic(), deadline, "only %d pictures arrived" % len(got))
            a = get_image()
            if a.header("Content-Type") == "text/plain":
                self.assertEqual(text_answer(a), ("200 OK", "text/plain", b"ERROR_TRANSLATOR_RECEIVE:"))
                continue
            got.append(a)
        return got

    def test_pictures_arrive_in_order_byte_for_byte(self):
        a = login()
        self.assertEqual(text_answer(a), ("200 OK", "text/plain", b"LOGIN_SUCCESS:1:\r\n"))
        before = local_epoch_ms()
        answers = self.pull(24)
        after = local_epoch_ms()

        last_seq = 0
        for a in answers:
            m = check_head(a)
            self.assertEqual(m.group("status"), "200 OK")
            self.assertEqual(m.group("type"), "image/jpeg")
            self.assertEqual(int(m.group("length")), len(a.body))
            extra = m.group("extra").split("\r\n")
            self.assertEqual(extra[0], "TarnDataType: Ostrel")
            self.assertTrue(extra[1].startswith("IMAGE_ID0000:"), extra)
            self.assertEqual(extra[2:], ["OFFSET_TIME: 0", ""])
            option = extra[1][len("IMAGE_ID0000:"):]
            om = OPTION_RE.match(option)
            self.assertTrue(om, option)
            # Arrival time in local milliseconds, taken by the daemon
            # between our login and the last answer.
            self.assertLessEqual(before - 2000, int(om.group(1), 16))
            self.assertLessEqual(int(om.group(1), 16), after + 2000)

            seq, _, picture = split_stamp(a.body)
            self.assertGreater(seq, last_seq, "pictures come in camera order")
            last_seq = seq
            # One camera connection, so part n carries picture (n-1) mod 8.
            self.assertTrue(picture == self.pictures[(seq - 1) % len(self.pictures)],
                            "picture %d differs from what the camera sent" % seq)

        records = read_records(self.cam_record)
        self.assertEqual(len(records), 1, "the stream stays open while logged in")
        peer, raw = records[0]
        self.assertTrue(peer.startswith(MYIP + ":"), peer)
        self.assertEqual(raw, b"GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=1 HTTP/1.0\r\n"
                              b"User-Agent: Tarnmoor\r\n\r\n")

        self.assertEqual(text_answer(logout()), ("200 OK", "text/plain", b"LOGOUT_SUCCESS:1:IMAGE\r\n"))
        wait_for(lambda: not established_to(MYIP, CAMERA_PORT), "the camera stream to close")
        self.assertEqual(text_answer(get_image())[2], b"ERROR_USER_ID:")
        self.assertEqual(len(read_records(self.cam_record)), 1)

    def test_head_request_gets_the_image_head_without_body(self):
        login()
        self.pull(1)

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

    def test_stop_while_streaming(self):
        login()
        self.pull(2)
        self.stop_daemon(self.pid)
        self.assertIsNone(self.read_states("1"))
        self.assertFalse(established_to(MYIP, CAMERA_PORT))


class SlowViewerTest(RelayCase):
    """A viewer that falls behind is handed the oldest picture still held.
    A borrowed picture stays intact for four frame periods after it is
    handed out, so the camera runs slowly enough here that sending even
    under the sanitizers stays inside that window."""

    pull = PictureStreamTest.pull

    def setUp(self):
        super().setUp()
        self.pictures, self.cam_record = self.start_camsim("--fps", "10")
        self.pid = self.start_forking("1")

    def test_a_slow_viewer_skips_to_newer_pictures_that_are_still_whole(self):
        login()
        first = split_stamp(self.pull(1)[0].body)[0]
        # The viewer pauses (the pause is the scenario, not a wait for an
        # event): the ring of six slots is overwritten meanwhile, including
        # the slot the last picture was sent from.
        time.sleep(2)
        seq = first + 6
        for a in self.pull(4):
            nxt, _, picture = split_stamp(a.body)
            self.assertGreater(nxt, seq, "pictures skip ahead, then come in order")
            self.assertTrue(picture in self.pictures, "picture %d was changed" % nxt)
            seq = nxt


if __name__ == "__main__":
    unittest.main()
