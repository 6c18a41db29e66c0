"""Chaos: one daemon for OSTREL_CHAOS_MINUTES minutes (default 2) while
everything around it misbehaves at random times:

- the camera simulator is restarted every few seconds with another of its
  faults (drops, truncations, stalls and hangs inside a picture, resets,
  wrong lengths, empty and oversized parts, heads that are not HTTP, error
  statuses) or none;
- the viewer logs in, pulls for a while at the camera's rate, logs out,
  pauses, and again;
- notice_update follows real changes of the configuration file (post-alarm
  term, camera number), and reset_postterm comes now and then;
- a second client hammers the control port with valid and malformed
  requests, now and then one that trickles its body;
- the daemon's wall clock (only its own, through libfaketime) steps by an
  hour forward and back.

Checks: every picture handed out is byte for byte one of the pictures the
camera sent (stamp aside), in the camera's order, never twice; every answer
comes within the channel's bounds (no thread stuck); descriptors and
resident memory stay flat after the warm-up; the log rotates with every
line whole. A sample every few seconds (RSS, descriptors, pictures) goes to
OSTREL_CHAOS_SAMPLES (CSV) for tests/reliability/plot_chaos.py.
"""

import os
import random
import threading
import time
import unittest

import harness
import reliability as r
from reliability import MYIP, FOREIGN_IP
from test_control_load import malformed

MINUTES = float(os.environ.get("OSTREL_CHAOS_MINUTES", "2"))
SAMPLES = os.environ.get("OSTREL_CHAOS_SAMPLES", "")
SEED = int(os.environ.get("OSTREL_CHAOS_SEED", "0") or "0") or int(time.time())
FPS = 25
SAMPLE_EVERY = 5.0

# The camera's faults, with their arguments; None is a healthy camera.
FAULTS = [
    None, None,
    ("drop",), ("truncate",), ("stall",), ("hang",), ("hang", "100"), ("reset",),
    ("wrong-length", "100"), ("wrong-length", "-100"), ("no-length",), ("zero-length",),
    ("oversize", "1048576"), ("oversize", "819200"), ("garbage-head",), ("status", "503"),
    ("status", "401"),
]

# Bounds of the channel: a request is read within 15 s, a picture is waited
# for within the frame wait and sent within the send limit; a busy two-core
# machine (and a sanitizer build) gets the same again on top.
ANSWER_LIMIT = 40.0
# Warm-up: the first fifth of the run, at least a minute in the long runs.
WARMUP_FRACTION = 0.2
FD_FLAT_SLACK = 6           # connections in flight at the moment of a sample
RSS_FLAT_SLACK_KB = 8 * 1024


def setUpModule():
    harness.setup_namespace()


class Chaos:
    """The shared state of the actors: a stop event, their tallies and the
    first failure any of them met."""

    def __init__(self, case, seed):
        self.case = case
        self.stop = threading.Event()
        self.tally = r.Tally()
        self.failures = []
        self.lock = threading.Lock()
        self.pictures = 0
        self.max_answer = 0.0
        self.seed = seed

    def fail(self, text):
        with self.lock:
            self.failures.append(text)
        self.stop.set()

    def timed(self, fn, what):
        t0 = time.monotonic()
        try:
            return fn()
        finally:
            took = time.monotonic() - t0
            with self.lock:
                self.max_answer = max(self.max_answer, took)
            if took > ANSWER_LIMIT:
                self.fail("%s answered after %.1f s" % (what, took))

    def sleep(self, rng, low, high):
        return self.stop.wait(rng.uniform(low, high))

    def actor(self, name, fn):
        def body():
            try:
                fn(random.Random("%d-%s" % (self.seed, name)))
            except BaseException as exc:  # noqa: BLE001 - reported by the test
                self.fail("%s: %s: %s" % (name, type(exc).__name__, exc))
        t = threading.Thread(target=body, name=name, daemon=True)
        t.start()
        return t


class ChaosTest(r.ReliabilityCase):
    def test_an_hour_of_chaos(self):
        seed = SEED
        print("chaos: seed %d, %g min" % (seed, MINUTES), flush=True)
        chaos = Chaos(self, seed)
        pics = harness.make_pictures(self.path("cam-pictures"), 12, seed=seed % 1000)
        known = set(pics)
        self.start_schedsim()
        clock = None if r.FakeClock.why_not() else r.FakeClock(self)
        if clock is None:
            print("chaos: " + r.FakeClock.why_not(), flush=True)
        # The log starts just below its limit, so that it rotates early in a
        # short run too.
        r.prefill_log(self.path("log", "Ostrel_01_log0.txt"), r.LOG_LIMIT - 20000)
        camera = {"proc": None, "recent": []}
        self.restart_camera(camera, None)
        pid = self.start_forking("1", env=clock and clock.env())
        seen = {"last": None}

        def camera_actor(rng):
            while not chaos.sleep(rng, 3, 25):
                fault = rng.choice(FAULTS)
                self.restart_camera(camera, fault, rng)
                chaos.tally.add("camera " + (fault[0] if fault else "healthy"))

        def viewer(rng):
            while not chaos.stop.is_set():
                chaos.timed(harness.login, "img_login")
                chaos.tally.add("login")
                until = time.monotonic() + rng.uniform(2, 40)
                while time.monotonic() < until and not chaos.stop.is_set():
                    a = chaos.timed(get_image_or_cut, "get_image")
                    if a is None:
                        # The viewer fell behind the ring while the picture
                        # was sent: the daemon cut it off rather than send
                        # another frame's bytes under its head.
                        chaos.tally.add("picture cut off")
                        continue
                    if a.header("Content-Type") != "image/jpeg":
                        if a.body != b"ERROR_TRANSLATOR_RECEIVE:":
                            raise AssertionError("get_image answered %r" % a.body[:100])
                        chaos.stop.wait(1.0 / FPS)
                        continue
                    harness.check_head(a)
                    if int(a.header("Content-Length")) != len(a.body):
                        raise AssertionError("picture of %d bytes, announced %s"
                                             % (len(a.body), a.header("Content-Length")))
                    seq, t_us, bare = harness.split_stamp(a.body)
                    how = as_sent(bare, known, camera["recent"])
                    if how is None:
                        with open(self.path("bad-picture-%d.jpg" % seq), "wb") as f:
                            f.write(a.body)
                        raise AssertionError("picture seq %d is none the camera sent (%d bytes; camera faults "
                                             "lately %r)" % (seq, len(a.body), camera["recent"]))
                    chaos.tally.add("picture " + how)
                    # Camera simulators follow one another, each counting
                    # from 1, so their send times give the order.
                    key = (t_us, seq)
                    if seen["last"] is not None and key <= seen["last"]:
                        raise AssertionError("picture %r after %r: out of order or twice"
                                             % (key, seen["last"]))
                    seen["last"] = key
                    with chaos.lock:
                        chaos.pictures += 1
                chaos.timed(harness.logout, "img_logout")
                chaos.tally.add("logout")
                chaos.sleep(rng, 0, 5)

        def trcom_ok(command):
            a = chaos.timed(lambda: harness.trcom_command(command), command)
            if a.header("Query_Result") != "1:1":
                raise AssertionError("%s answered %r" % (command, a.header("Query_Result")))
            chaos.tally.add(command)

        def config_actor(rng):
            while not chaos.sleep(rng, 10, 40):
                self.write_config(translator_calarm_rec_postterm=str(rng.randint(3, 60)),
                                  translator_connect_camerano=str(rng.randint(1, 4)))
                trcom_ok("notice_update")

        def postterm_actor(rng):
            while not chaos.sleep(rng, 2, 20):
                trcom_ok("reset_postterm")

        def hammer(rng):
            valid = [
                lambda: harness.request("/ptippreimg.cgi?get_image=1&img_user_id=1", src=FOREIGN_IP),
                lambda: harness.request("/index.html"),
                lambda: harness.request("/ptippreimg.cgi?get_image=1&img_user_id=7"),
                lambda: harness.request("/trcom.cgi?p_name=TrCommunicate&p_version=1&command=nothing"),
                lambda: harness.request("/ptippreimg.cgi?get_image=1&img_user_id=1", method="HEAD",
                                    src=FOREIGN_IP),
            ]
            while not chaos.stop.is_set():
                pick = rng.random()
                if pick < 0.3:
                    chaos.timed(rng.choice(valid), "a valid request")
                    chaos.tally.add("hammer valid")
                elif pick < 0.995:
                    kind, raw, half_close, allowed = rng.choice(malformed(rng))
                    status = chaos.timed(lambda: r.status_of(r.raw_exchange(raw, shut_write=half_close)),
                                         kind)
                    if status not in allowed:
                        raise AssertionError("%s: answered %s, expected one of %s" % (kind, status, allowed))
                    chaos.tally.add("hammer malformed")
                else:
                    # A body that trickles in, a byte a second: 400 (or a
                    # close) after the 15 s read limit.
                    data, _ = chaos.timed(lambda: r.trickle_body(100, every=1.0, limit=30), "a trickled body")
                    if r.status_of(data) not in (400, None):
                        raise AssertionError("trickled body answered %r" % data[:100])
                    chaos.tally.add("hammer trickled")
                chaos.stop.wait(rng.uniform(0, 0.05))

        def clock_actor(rng):
            offsets = [3600, -3600, 0]
            while not chaos.sleep(rng, 20, 90):
                clock.set(rng.choice(offsets))
                chaos.tally.add("clock step")

        samples = []

        def sampler(_rng):
            # Each sample is written at once, so that a run that fails (or
            # is stopped) still leaves its figures.
            with open(SAMPLES or os.devnull, "w") as out:
                out.write("seconds,rss_kb,fds,pictures_per_second\n")
                last_pictures, t0 = 0, time.monotonic()
                while not chaos.stop.wait(SAMPLE_EVERY):
                    with chaos.lock:
                        n = chaos.pictures
                    samples.append((time.monotonic() - t0, r.rss_kb(pid), r.fd_count(pid),
                                    (n - last_pictures) / SAMPLE_EVERY))
                    out.write("%.1f,%d,%d,%.2f\n" % samples[-1])
                    out.flush()
                    last_pictures = n
                    if not r.alive(pid):
                        raise AssertionError("the daemon ended")

        actors = [chaos.actor("camera", camera_actor), chaos.actor("viewer", viewer),
                  chaos.actor("config", config_actor), chaos.actor("reset_postterm", postterm_actor),
                  chaos.actor("hammer", hammer), chaos.actor("sampler", sampler)]
        if clock is not None:
            actors.append(chaos.actor("clock", clock_actor))
        chaos.stop.wait(MINUTES * 60)
        chaos.stop.set()
        for t in actors:
            t.join(ANSWER_LIMIT + 30)
            self.assertFalse(t.is_alive(), "actor %s still running" % t.name)
        self.assertEqual(chaos.failures, [], "seed %d" % seed)

        warm = [s for s in samples if s[0] >= MINUTES * 60 * WARMUP_FRACTION]
        self.assertGreater(len(warm), 3, "too few samples")
        first = [s for s in warm if s[0] < MINUTES * 60 * 0.4] or warm[:3]
        fd_base = max(s[2] for s in first)
        rss_base = max(s[1] for s in first)
        fd_max = max(s[2] for s in warm)
        rss_max = max(s[1] for s in warm)
        self.assertLessEqual(fd_max, fd_base + FD_FLAT_SLACK, "descriptors grew: %r" % warm)
        if not r.SANITIZED:
            self.assertLessEqual(rss_max, rss_base + RSS_FLAT_SLACK_KB, "resident memory grew: %r" % warm)
        self.assertGreater(chaos.pictures, 0)
        sizes = r.log_sizes(self)
        self.assertTrue(os.path.exists(self.path("log", "Ostrel_01_log1.txt")), "the log never rotated")
        self.check_files(pid)
        for size in sizes:
            self.assertLessEqual(size, r.LOG_LIMIT + 4096, "a log generation over its limit: %r" % sizes)
        # The camera is put back to health: the viewer is served again.
        self.restart_camera(camera, None)
        if clock is not None:
            clock.set(0)
        harness.login()
        self.wait_picture()
        r.record("chaos: %g min, seed %d" % (MINUTES, seed), chaos.tally.total() + chaos.pictures,
                 "survived; every picture whole, in order, once; log rotated",
                 (fd_base, rss_base), (fd_max, rss_max),
                 note="pictures %d; slowest answer %.1f s; %s; log sizes %s" % (
                     chaos.pictures, chaos.max_answer, chaos.tally.text(),
                     "/".join(str(s) for s in sizes)))

    def restart_camera(self, camera, fault, rng=None):
        """Replaces the running camera simulator by one with the fault."""
        proc = camera["proc"]
        if proc is not None:
            proc.terminate()
            proc.wait(30)
            self.children.remove(proc)
        args = ["--fps", str(FPS)]
        if fault is not None:
            args += ["--fault", fault[0], "--fault-at", str(rng.randint(1, 60))]
            if len(fault) > 1:
                args += ["--fault-arg", fault[1]]
            args += ["--fault-connections", str(rng.choice([0, 1, 2, 3]))]
        self.spawn([harness.CAMSIM, "--listen", "%s:%d" % (MYIP, r.CAMERA_PORT), "--quiet", "--images",
                    self.path("cam-pictures")] + args)
        camera["proc"] = self.children[-1]
        # The faults of this camera and the one before: pictures of the one
        # before may still be on their way.
        camera["recent"] = camera["recent"][-1:] + [fault]
        print("chaos: %.1f s: camera %s" % (time.monotonic(), " ".join(args)), flush=True)
        r.wait_for(lambda: harness.is_listening(MYIP, r.CAMERA_PORT), "the camera simulator")


def get_image_or_cut():
    """The viewer's get_image: its one answer, or None when the daemon closed
    the connection before the whole picture its head announced."""
    data = harness.exchange(r.IMAGE_REQUEST)
    try:
        answers = harness.parse_answers(data)
    except AssertionError:
        if b"\r\n\r\n" in data and b"\r\nContent-Length: " in data.split(b"\r\n\r\n")[0]:
            return None  # the body is cut short
        raise
    if len(answers) != 1:
        raise AssertionError("expected one answer, got %r" % answers)
    return answers[0]


def as_sent(bare, known, recent):
    """How the picture (its stamp taken out) is one the camera sent: "whole",
    or "as announced" when the camera's Content-Length was off by 100: the
    daemon reads exactly the announced bytes as the picture (the two bytes
    after them are taken whatever they are, the next part head is what fails
    and ends the connection), so the picture handed out is the camera's cut
    100 bytes short, or followed by the 100 bytes it sent next. None when it
    is neither."""
    if bare in known:
        return "whole"
    if ("wrong-length", "-100") in recent and any(bare == k[:-100] for k in known):
        return "as announced"
    if ("wrong-length", "100") in recent and any(len(bare) == len(k) + 100 and bare.startswith(k)
                                                 for k in known):
        return "as announced"
    return None


if __name__ == "__main__":
    unittest.main()
