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
import time
import unittest

import harness
import reliability as r
from test_camera_faults import FakeCamera, trickle

STEPS = [3600, -3600]
POSTTERM = 8  # seconds


def setUpModule():
    harness.setup_namespace()
    why = r.FakeClock.why_not()
    if why:
        raise unittest.SkipTest(why)


class ClockStepTest(r.ReliabilityCase):
    def start(self, **config):
        self.write_config(**config)
        clock = r.FakeClock(self)
        return clock, self.start_forking("1", env=clock.env())

    def test_post_alarm_term_ends_on_time(self):
        for i, step in enumerate(STEPS):
            with self.row(step=step):
                record = self.start_schedsim(name="sched%d" % i)
                self.start_camsim("--fps", "25", name="cam%d" % i)
                clock, _ = self.start(translator_calarm_rec_postterm=str(POSTTERM))
                t0 = time.monotonic()
                harness.login()
                time.sleep(2)  # into the term, then the step
                clock.set(step)
                requests = r.wait_for(lambda: harness.read_records(record), "the stop request",
                                      limit=POSTTERM + 30)
                took = time.monotonic() - t0
                # The term is summed from the login; it ends at the first
                # tick past it (the camera thread ticks with every picture).
                self.assertTrue(POSTTERM - 0.5 <= took < POSTTERM + 5, "stop %.1f s after the login" % took)
                self.assertEqual(len(requests), 1, requests)
                self.assertIn(b"stop_urgent_storage_wpp_ch", requests[0][1])
                r.record("clock: wall clock stepped %+d s 2 s into a %d s post-alarm term" % (step, POSTTERM),
                         1, "stop sent after %.1f s" % took)

    def test_trickled_body_ends_after_the_read_limit(self):
        for step in STEPS:
            with self.row(step=step):
                clock, _ = self.start()
                data, took = r.trickle_body(at=(2, lambda: clock.set(step)))
                self.assertEqual(r.status_of(data), 400, data[:200])
                self.assertTrue(14 <= took < 25, "answered after %.1f s" % took)
                r.record("clock: wall clock stepped %+d s while a request body trickles in" % step, 1,
                         "400 after %.1f s" % took)

    def test_trickled_picture_ends_after_the_read_limit(self):
        for step in STEPS:
            with self.row(step=step), contextlib.closing(FakeCamera(trickle)) as camera:
                clock, _ = self.start()
                harness.login()
                r.wait_for(lambda: camera.count() >= 1, "the camera connection")
                time.sleep(0.5)
                clock.set(step)
                r.wait_for(lambda: camera.count() >= 2, "the camera reconnection", limit=60)
                gap = camera.gaps()[0]
                self.assertTrue(1.8 <= gap < 6, "reconnected after %.2f s" % gap)
                r.record("clock: wall clock stepped %+d s while a camera picture trickles in" % step, 1,
                         "reconnected after %.2f s" % gap)


if __name__ == "__main__":
    unittest.main()
