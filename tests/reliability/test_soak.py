"""Soak: the camera streams and a viewer pulls for OSTREL_SOAK_MINUTES
minutes (default 1); the daemon's descriptors and memory must be where they
were after the first minute of warm-up pictures, and its files whole.

The viewer may miss pictures (a gap in the camera's sequence numbers): the
ring keeps the two newest pictures readable, so a viewer that falls more
than two pictures behind (a busy machine that does not run it for 80 ms at
25 fps) is handed the oldest one the ring still holds. Every gap must be
that: the picture after the one handed out must already have left the
camera when the viewer received it, so the viewer asked when the ring had
moved past the pictures it missed. A gap without that would be a picture
lost by the daemon."""

import os
import re
import subprocess
import unittest

import reliability as r
from reliability import MYIP, CONTROL_PORT, e2e

MINUTES = float(os.environ.get("OSTREL_SOAK_MINUTES", "1"))


def setUpModule():
    e2e.setup_namespace()


class SoakTest(r.ReliabilityCase):
    def test_stream_and_pull(self):
        # The camera simulator's own generated pictures: real JPEGs, which
        # the viewer decodes far enough to check their structure.
        self.spawn([e2e.CAMSIM, "--listen", "%s:%d" % (MYIP, r.CAMERA_PORT), "--quiet", "--fps", "25"])
        r.wait_for(lambda: e2e.is_listening(MYIP, r.CAMERA_PORT), "the camera simulator")
        pid = self.start_forking("1")
        viewer = [r.VIEWER, "--control", "%s:%d" % (MYIP, CONTROL_PORT), "--bind", MYIP + ":40000",
                  "--quiet"]
        # Warm-up: the FIFO's slots and the threads' buffers in use once.
        warm = subprocess.run(viewer + ["--count", "100"], capture_output=True, timeout=120, text=True)
        self.assertEqual(warm.returncode, 0, warm.stdout + warm.stderr)
        before = self.usage(pid)
        seconds = int(MINUTES * 60)
        run = subprocess.run([a for a in viewer if a != "--quiet"] + ["--seconds", str(seconds)],
                             capture_output=True, timeout=seconds + 120, text=True)
        self.assertEqual(run.returncode, 0, run.stdout[-3000:] + run.stderr)
        summary = [line for line in run.stdout.splitlines() if line.startswith("summary:")]
        self.assertTrue(summary, run.stdout[-3000:])
        with open(self.path("viewer.out"), "w") as f:
            f.write(run.stdout)
        gaps, unexplained = lagging_viewer_gaps(run.stdout)
        self.assertEqual(unexplained, [], "gaps that are no overwrite of a lagging viewer")
        self.finish(pid, "soak: camera at 25 fps, viewer pulling for %g min" % MINUTES, 1,
                    "survived; viewer checks passed; every gap a lagging viewer's", before,
                    note=summary[-1] + "; " + gaps)


PICTURE_RE = re.compile(r"^picture \d+ seq=(\d+) bytes=\d+ latency_ms=([\d.-]+) sent_us=(\d+)$", re.M)


def lagging_viewer_gaps(output):
    """(text, unexplained gaps) from the viewer's lines. A gap at picture S
    is the ring's overwrite when S + 1, the next picture, had left the
    camera before S reached the viewer (both times on this machine's
    clock): the ring had moved past the missed ones when the viewer asked."""
    pics = [(int(s), float(l), int(t)) for s, l, t in PICTURE_RE.findall(output)]
    explained, unexplained, unknown = [], [], 0
    for i in range(1, len(pics)):
        seq, latency_ms, sent_us = pics[i]
        if seq <= pics[i - 1][0] + 1:
            continue
        if i + 1 >= len(pics) or pics[i + 1][0] != seq + 1:
            unknown += 1
            continue
        received_us = sent_us + latency_ms * 1000
        ahead_ms = (received_us - pics[i + 1][2]) / 1000
        row = "seq %d after %d (picture %d): received %.1f ms after %d was sent" % (
            seq, pics[i - 1][0], i + 1, ahead_ms, seq + 1)
        (explained if ahead_ms > 0 else unexplained).append(row)
    text = "%d gaps, each with the next picture already sent (%s)%s" % (
        len(explained) + len(unexplained) + unknown, "; ".join(explained) or "none",
        ", %d not judged (next picture also after a gap)" % unknown if unknown else "")
    return text, unexplained


if __name__ == "__main__":
    unittest.main()
