"""Writes docs/RELIABILITY.md (to standard output) from one run of
scripts/reliability.sh: report.py OUT_DIR SOAK_MINUTES SECONDS BUILD_DIR."""

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
    p("Regenerate with `scripts/reliability.sh [--soak-minutes N]` (default 10); the logs of")
    p("each test file stay in run/reliability/.")
    p()
    p("Run of %s UTC on this machine (%s, %d cores, %s), commit %s, %s build, soak of %s min; "
      "%d s in all." % (time.strftime("%Y-%m-%d %H:%M", time.gmtime()), platform.platform(),
                        os.cpu_count() or 0, platform.python_implementation() + " " +
                        platform.python_version(), commit or "?", build_type, soak, seconds))
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


main()
