"""Writes docs/RELIABILITY.md (to standard output) from one run of
scripts/reliability.sh: report.py OUT_DIR SOAK_MINUTES SECONDS BUILD_DIR
CHAOS_MINUTES REPORT_PATH. The chaos run's plot is drawn beside the report
(reliability-chaos.png) when its samples are there."""

import json
import os
import platform
import subprocess
import sys
import time


def cell(text):
    return str(text).replace("|", "\\|").replace("\n", " ")


def usage(before, after, unit=""):
    if before is None:
        return "-"
    return "%s → %s%s" % (before, after, unit)


def main():
    out, soak, seconds, build = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
    chaos, report = sys.argv[5], sys.argv[6]
    with open(os.path.join(out, "results.jsonl")) as f:
        rows = [json.loads(line) for line in f if line.strip()]
    with open(os.path.join(out, "runs.txt")) as f:
        runs = [line.rstrip("\n").split("\t") for line in f if line.strip()]
    try:
        cache = open(os.path.join(build, "CMakeCache.txt")).read()
        build_type = [l.split("=", 1)[1] for l in cache.splitlines()
                      if l.startswith("CMAKE_BUILD_TYPE:")][0] or "default"
    except (OSError, IndexError):
        build_type = "unknown"
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True,
                            text=True).stdout.strip()
    p = print
    p("# Reliability")
    p()
    p("What the daemon was put through by `scripts/reliability.sh`, how often, and what came")
    p("of it. The tests drive the real `Ostrel` binary in a private network namespace with")
    p("the simulated camera and viewer (tests/reliability/). After every load the daemon must")
    p("still run, its open descriptors (/proc/PID/fd) must come back to their level (within 2)")
    p("and its resident memory (VmRSS) must stay within 16 MiB of where it was; the states")
    p("file must parse as XML, the pid file hold only digits, and the log lines carry whole")
    p("time stamps with no two writes interleaved.")
    p()
    p("Regenerate with `scripts/reliability.sh [--soak-minutes N] [--chaos-minutes N]` (default")
    p("10 and 60); the logs of each test file stay in run/reliability/.")
    p()
    p("Run of %s UTC on this machine (%s, %d cores, %s), commit %s, %s build, soak of %s min; "
      "chaos run of %s min; %d s in all." % (time.strftime("%Y-%m-%d %H:%M", time.gmtime()), platform.platform(),
                        os.cpu_count() or 0, platform.python_implementation() + " " +
                        platform.python_version(), commit or "?", build_type, soak, chaos, seconds))
    p()
    p("| Test file | Seconds | Result |")
    p("|---|---:|---|")
    for name, secs, summary in runs:
        p("| %s | %s | %s |" % (cell(name), secs, cell(summary)))
    p()
    p("| What was tried | Times | Outcome | Descriptors before → after | VmRSS kB before → after | Notes |")
    p("|---|---:|---|---|---|---|")
    for r in rows:
        p("| %s | %s | %s | %s | %s | %s |" % (
            cell(r["what"]), r["count"], cell(r["outcome"]),
            usage(r["fds_before"], r["fds_after"]), usage(r["rss_before"], r["rss_after"]),
            cell(r["note"])))
    p()
    p("Counts are requests, faulty camera connections or stops, as the row says. For the")
    p("stops, the daemon is gone afterwards, so its descriptors are not counted; the viewers'")
    p("tally says what the clients saw while it went down (a picture being sent when the stop")
    p("came may end in a close). \"not yet\" is the defined answer ERROR_TRANSLATOR_RECEIVE:")
    p("to a viewer that asks before the next picture has arrived.")
    chaos_section(out, chaos, report, rows)


def chaos_section(out, minutes, report, rows):
    samples = os.path.join(out, "chaos.csv")
    if not os.path.exists(samples):
        return
    with open(samples) as f:
        lines = [l.strip().split(",") for l in f][1:]
    if not lines:
        return
    rss = [int(l[1]) for l in lines]
    fds = [int(l[2]) for l in lines]
    pps = [float(l[3]) for l in lines]
    p = print
    p()
    p("## Chaos")
    p()
    p("One daemon for %s minutes (tests/reliability/test_chaos.py) while the camera simulator" % minutes)
    p("is restarted every 3 to 25 s with another of its faults or none, the viewer logs in,")
    p("pulls and logs out, the configuration file changes for real before each notice_update,")
    p("reset_postterm comes every 2 to 20 s, a second client hammers the control port with")
    p("valid and malformed requests (now and then one that trickles its body), and the")
    p("daemon's own wall clock steps by an hour forward and back. Every picture handed out")
    p("must be one the camera sent, byte for byte, in order and never twice; every answer")
    p("must come within 40 s; descriptors and memory must stay flat after the warm-up;")
    p("the log must rotate with every line whole.")
    p()
    p("| Sampled every 5 s | min | max | last |")
    p("|---|---:|---:|---:|")
    p("| VmRSS kB | %d | %d | %d |" % (min(rss), max(rss), rss[-1]))
    p("| open descriptors | %d | %d | %d |" % (min(fds), max(fds), fds[-1]))
    p("| pictures / s to the viewer | %.1f | %.1f | %.1f |" % (min(pps), max(pps), pps[-1]))
    for r in rows:
        if r["what"].startswith("chaos"):
            p()
            p("%s: %s; %s." % (r["what"], r["outcome"], r["note"]))
    png = os.path.join(os.path.dirname(os.path.abspath(report)), "reliability-chaos.png")
    here = os.path.dirname(os.path.abspath(__file__))
    # matplotlib is Debian's (python3-matplotlib): the system's python3 has
    # it where the one running this may not.
    plot = [os.path.join(here, "plot_chaos.py"), samples, png]
    if any(subprocess.run([py] + plot).returncode == 0 for py in (sys.executable, "/usr/bin/python3")
           if os.path.exists(py)):
        p()
        p("![VmRSS, descriptors and pictures per second over the chaos run](reliability-chaos.png)")


main()
