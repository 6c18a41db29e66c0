"""Soak: the camera streams and a viewer pulls for OSTREL_SOAK_MINUTES
minutes (default 1); the daemon's descriptors and memory must be where they
were after the first minute of warm-up pictures, and its files whole."""

import os
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
        run = subprocess.run(viewer + ["--seconds", str(seconds)], capture_output=True,
                             timeout=seconds + 120, text=True)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        summary = [line for line in run.stdout.splitlines() if line.startswith("summary:")]
        self.assertTrue(summary, run.stdout)
        self.finish(pid, "soak: camera at 25 fps, viewer pulling for %g min" % MINUTES, 1,
                    "survived; viewer checks passed", before, note=summary[-1])


if __name__ == "__main__":
    unittest.main()
