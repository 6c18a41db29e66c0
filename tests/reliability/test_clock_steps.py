"""The daemon's wall clock steps by an hour, forward and back, in the middle
of the three durations that a step used to upset (NTP's first sync after
boot, an operator's date -s, a resumed virtual machine): the post-alarm
term, a request body that trickles in, and a camera picture that trickles
in. Only the daemon's own clock is stepped, through libfaketime; every
duration it measures must go on as if nothing happened:

- the stop request still comes when the term has run out;
- the trickled body still gets its 400 after the 15 s read limit;
- the camera is still reconnected about 2 s into the trickled picture.
"""

import contextlib
import os
import socket
import time
import unittest

import harness
import reliability as r
from test_camera_faults import FakeCamera

STEPS = [3600, -3600]
POSTTERM = 8  # seconds


def setUpModule():
    harness.setup_namespace()
    why = r.FakeClock.why_not()
    if why:
        raise unittest.SkipTest(why)


class ClockStepTest(r.ReliabilityCase):
    def start(self, **config):
        if config:
            self.write_config(**config)
        clock = r.FakeClock(self)
        pid = clock.start_forking("1")
        return clock, pid

    def test_post_alarm_term_ends_on_time(self):
        for step in STEPS:
            with self.row(step):
                record = self.start_schedsim()
                self.start_camsim("--fps", "25")
                clock, pid = self.start(translator_calarm_rec_postterm=str(POSTTERM))
                t0 = time.monotonic()
                self.assertEqual(harness.login().body, b"LOGIN_SUCCESS:1:\r\n")
                time.sleep(2)  # into the term, then the step
                clock.set(step)
                r.wait_for(lambda: os.path.exists(record) and os.path.getsize(record) > 0,
                           "the stop request", limit=POSTTERM + 30)
                took = time.monotonic() - t0
                # The term is summed from the login; it ends at the first
                # tick past it (the camera thread ticks with every picture).
                self.assertGreaterEqual(took, POSTTERM - 0.5, "stop %.1f s after the login" % took)
                self.assertLess(took, POSTTERM + 5, "stop %.1f s after the login" % took)
                requests = harness.read_records(record)
                self.assertEqual(len(requests), 1, requests)
                self.assertIn(b"stop_urgent_storage_wpp_ch", requests[0][1])
                r.record("clock: wall clock stepped %+d s 2 s into a %d s post-alarm term" % (step, POSTTERM),
                         1, "stop sent after %.1f s" % took)

    def test_trickled_body_ends_after_the_read_limit(self):
        for step in STEPS:
            with self.row(step):
                clock, pid = self.start()
                sock = harness.connect(timeout=60)
                t0 = time.monotonic()
                sock.sendall(b"POST /trcom.cgi HTTP/1.0\r\nContent-Length: 1000\r\n\r\n")
                sock.settimeout(0.5)
                data = b""
                stepped = False
                while time.monotonic() - t0 < 60:
                    if not stepped and time.monotonic() - t0 > 2:
                        clock.set(step)
                        stepped = True
                    try:
                        sock.send(b"a")
                        chunk = sock.recv(65536)
                    except socket.timeout:
                        continue
                    except OSError:
                        break
                    if not chunk:
                        break
                    data += chunk
                took = time.monotonic() - t0
                sock.close()
                self.assertEqual(r.status_of(data), 400, data[:200])
                self.assertGreaterEqual(took, 14, "answered after %.1f s" % took)
                self.assertLess(took, 25, "answered after %.1f s" % took)
                r.record("clock: wall clock stepped %+d s while a request body trickles in" % step, 1,
                         "400 after %.1f s" % took)

    def test_trickled_picture_ends_after_the_read_limit(self):
        for step in STEPS:
            with self.row(step), contextlib.closing(FakeCamera("trickle")) as camera:
                clock, pid = self.start()
                self.assertEqual(harness.login().body, b"LOGIN_SUCCESS:1:\r\n")
                r.wait_for(lambda: camera.count() >= 1, "the camera connection")
                time.sleep(0.5)
                clock.set(step)
                r.wait_for(lambda: camera.count() >= 2, "the camera reconnection", limit=60)
                gap = camera.gaps()[0]
                self.assertGreaterEqual(gap, 1.8, "reconnected after %.2f s" % gap)
                self.assertLess(gap, 6, "reconnected after %.2f s" % gap)
                r.record("clock: wall clock stepped %+d s while a camera picture trickles in" % step, 1,
                         "reconnected after %.2f s" % gap)

    @contextlib.contextmanager
    def row(self, step):
        with self.subTest(step=step):
            try:
                yield
            finally:
                self.reset_row()

    def reset_row(self):
        """The next row starts afresh: daemon and simulators stopped."""
        self.stop_daemons()
        for proc in self.children:
            if proc.poll() is None:
                proc.terminate()
                proc.wait(10)
        self.children.clear()
        for name in ("sched.rec",):
            if os.path.exists(self.path(name)):
                os.remove(self.path(name))


if __name__ == "__main__":
    unittest.main()
