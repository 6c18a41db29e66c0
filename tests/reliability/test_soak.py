"""Soak: the camera streams and a viewer pulls for OSTREL_SOAK_MINUTES
minutes (default 1); the daemon's descriptors and memory must be where they
were after the first minute of warm-up pictures, and its files whole.

The viewer may miss pictures (a gap in the camera's sequence numbers), in
two defined ways, and every gap must be one of them:
- the ring keeps the two newest pictures readable, so a viewer that falls
  more than two pictures behind (a busy machine that does not run it for
  80 ms at 25 fps) is handed the oldest one the ring still holds: then the
  picture after it had already left the camera when the viewer received it;
- the camera simulator numbers its pictures across all its connections, and
  when the daemon closes a stream (the warm-up viewer's logout) and opens a
  new one (the next login), the old connection's thread still takes a
  number or two before it notices the close: then the two pictures on both
  sides of the gap left the camera one frame period apart, so it sent
  nothing in between on the stream the daemon reads.
A gap of any other kind would be a picture lost by the daemon."""

import os
import re
import subprocess
import unittest

import harness
import reliability as r
from reliability import MYIP, CONTROL_PORT

MINUTES = float(os.environ.get("OSTREL_SOAK_MINUTES", "1"))


def setUpModule():
    harness.setup_namespace()


class SoakTest(r.ReliabilityCase):
    def test_stream_and_pull(self):
        # The camera simulator's own generated pictures: real JPEGs, which
        # the viewer decodes far enough to check their structure.
        self.start_camsim("--fps", "25", pictures=None)
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


def lagging_viewer_gaps(output, fps=25):
    """(text, unexplained gaps) from the viewer's lines; see the module's
    text for the two kinds of gap, both judged on this machine's clock."""
    pics = [(int(s), float(l), int(t)) for s, l, t in PICTURE_RE.findall(output)]
    period_us = 1e6 / fps
    lagging, elsewhere, unexplained = [], [], []
    for i in range(1, len(pics)):
        seq, latency_ms, sent_us = pics[i]
        prev_seq, _, prev_sent_us = pics[i - 1]
        if seq <= prev_seq + 1:
            continue
        row = "seq %d after %d (picture %d)" % (seq, prev_seq, i + 1)
        received_us = sent_us + latency_ms * 1000
        if i + 1 < len(pics) and pics[i + 1][0] == seq + 1 and received_us > pics[i + 1][2]:
            lagging.append(row)
        elif sent_us - prev_sent_us < 1.5 * period_us:
            elsewhere.append(row)
        else:
            unexplained.append(row + ": sent %.1f ms after it, received before %d was sent" % (
                (sent_us - prev_sent_us) / 1000, seq + 1))
    text = ("%d gaps: %d a lagging viewer's (%s), %d numbers taken by the camera's previous "
            "connection (%s)" % (len(lagging) + len(elsewhere) + len(unexplained), len(lagging),
                                 "; ".join(lagging) or "-", len(elsewhere), "; ".join(elsewhere) or "-"))
    return text, unexplained


if __name__ == "__main__":
    unittest.main()
