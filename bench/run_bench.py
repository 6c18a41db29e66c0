#!/usr/bin/env python3
"""Side-by-side relay benchmark. Runs inside the private network namespace
(scripts/bench.sh starts it there through tests/sim/ostrel-netns). The daemon,
the simulated cameras and their clean-up come from the test harness
(tests/harness/, on PYTHONPATH; OSTREL_BUILD_DIR names the build).

Every relay gets its own simulated camera (tests/sim/ostrel-camsim; one camera
per relay, since its sequence numbers rise across all its connections) and
its own viewer:

  ostrel  the daemon, started in the foreground; its own camera connection is
          redirected to the simulated camera (tests/sim/ostrel-camera-redirect);
          viewer viewer/ostrel-viewer pulling with get_image
  ref     bench/ref_relay.cpp, the minimal relay; viewer bench/mjpeg_sink.cpp
  ffmpeg  ffmpeg -f mpjpeg -i URL -c copy to its HTTP server (-listen 1)
  motion  motion with the stream as a network camera and its stream output
          (it decodes and re-encodes, so the stamp does not survive: no
          latency and no loss figure for it)

Per exchange and per camera picture, the daemon is set against
bench/ref_preimage.cpp (the same pre-image protocol at its smallest, with a
minimal camera reader), both pulled by viewer/ostrel-viewer from their own
simulated camera at 30 fps (18 KB): the CPU of the threads that answer
requests per exchange (every answer: pictures, "not yet" answers, login and
logout, counted by the viewer), and the CPU of the thread that reads the
camera per picture.

A relay's CPU time (utime + stime of /proc/PID/stat, all its threads) and
memory (VmHWM peak, VmRSS at the end of the run) are read from /proc. The
viewers' output lines are time-stamped as they arrive; a warm-up at the start
of every run is left out of all figures.

Output: a JSON file of every run and the Markdown report with its plot.
"""

import argparse
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import threading
import time

import harness
from harness import files, is_listening, procs, wait_for

ADDR = "192.0.2.1"
CAM_PATH = "/axis-cgi/mjpg/video.cgi?showlength=1&camera=1"
SIZES = {
    "18KB": [],
    "400KB": ["--size", "1920x1080", "--quality", "85", "--detail", "20"],
}
RELAYS = ["ostrel", "ref", "ffmpeg", "motion"]
CLK_TCK = os.sysconf("SC_CLK_TCK")


class Ports:
    """Fresh ports for every run, so no run meets an earlier one's leftovers.
    Below 20000: the daemon's and the relays' outgoing connections use
    20000-29999 and the viewers bind 30000 and above."""

    def __init__(self, start=10000):
        self.next = start

    def take(self):
        self.next += 1
        if self.next >= 19999:
            self.next = 10001
        return self.next


PORTS = Ports()


def cpu_seconds(pid):
    """On-CPU time of all the process's threads, user and system: the run
    time of /proc/PID/task/*/schedstat (nanoseconds; utime and stime of
    /proc/PID/stat count whole clock ticks, too coarse for a relay that
    needs 0.1 ms per frame)."""
    total = 0
    base = "/proc/%d/task" % pid
    for tid in os.listdir(base):
        try:
            with open("%s/%s/schedstat" % (base, tid)) as f:
                total += int(f.read().split()[0])
        except (OSError, ValueError, IndexError):
            pass  # the thread ended meanwhile
    return total / 1e9


def thread_cpu(pid):
    """{tid: on-CPU seconds} of every thread of the process."""
    out = {}
    base = "/proc/%d/task" % pid
    for tid in os.listdir(base):
        try:
            with open("%s/%s/schedstat" % (base, tid)) as f:
                out[int(tid)] = int(f.read().split()[0]) / 1e9
        except (OSError, ValueError, IndexError):
            pass
    return out


def thread_roles(pid, kind):
    """{tid: "control" | "camera" | "main" | "figures"}. The reference names
    its threads. The daemon names only its figures writer; it starts the
    others in a fixed order (the control-port threads, then the one camera
    thread), so the camera thread is the newest."""
    tids = sorted(int(t) for t in os.listdir("/proc/%d/task" % pid))
    roles = {}
    for tid in tids:
        with open("/proc/%d/task/%d/comm" % (pid, tid)) as f:
            comm = f.read().strip()
        if kind == "refpre":
            roles[tid] = {"ref-camera": "camera", "ref-control": "control"}.get(comm, "main")
        elif comm == "ostrel-figures":
            roles[tid] = "figures"
        else:
            roles[tid] = "main" if tid == pid else ("camera" if tid == tids[-1] else "control")
    return roles


def machine_busy_seconds():
    """Busy time of all CPUs (everything but idle and iowait), seconds."""
    with open("/proc/stat") as f:
        v = [int(x) for x in f.readline().split()[1:]]
    return (sum(v[:8]) - v[3] - v[4]) / CLK_TCK


def cpu_ticks_seconds(pid):
    """utime + stime of /proc/PID/stat (whole process, clock ticks)."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / CLK_TCK


def memory_kb(pid):
    out = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(("VmHWM:", "VmRSS:")):
                out[line.split(":")[0]] = int(line.split()[1])
    return out.get("VmHWM", 0), out.get("VmRSS", 0)


class Consumer:
    """A viewer process whose picture lines are time-stamped on arrival."""

    LINE = re.compile(r"picture \d+ (?:seq=(\d+) )?bytes=(\d+)(?: latency_ms=([\d.]+))?")

    def __init__(self, argv):
        # stdbuf preloads its library ahead of a sanitizer build's runtime.
        env = dict(os.environ, ASAN_OPTIONS=(os.environ.get("ASAN_OPTIONS", "") +
                                             ":verify_asan_link_order=0").lstrip(":"))
        self.proc = subprocess.Popen(["stdbuf", "-oL"] + argv, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, env=env)
        self.pictures = []  # (monotonic arrival, seq or None, latency ms or None)
        self.err = ""
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.proc.stdout:
            m = self.LINE.match(line)
            if m:
                seq = int(m.group(1)) if m.group(1) else None
                lat = float(m.group(3)) if m.group(3) else None
                self.pictures.append((time.monotonic(), seq, lat))

    def finish(self, limit=30):
        try:
            self.proc.wait(limit)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.thread.join(5)
        self.err = self.proc.stderr.read()

    def window(self, t0, t1):
        return [p for p in self.pictures if t0 <= p[0] <= t1]


class Bench:
    def __init__(self, args):
        self.a = args
        for k in ("build", "work", "out"):
            setattr(args, k, os.path.abspath(getattr(args, k)))
        self.build = args.build
        self.work = args.work
        self.channel = 0
        self.procs = procs.Processes()  # of the current run, stopped by cleanup()
        os.makedirs(self.work, exist_ok=True)

    def spawn(self, argv, **kw):
        return self.procs.spawn(argv, **kw)

    def cleanup(self):
        """Stops every process of the run, also those whose start failed
        half-way (started, but never became ready)."""
        self.procs.stop_all()

    # -- parts of a run --------------------------------------------------
    def camera(self, fps, size, quiet_port=None):
        port = quiet_port or PORTS.take()
        proc, _, _ = procs.start_camsim(self.procs, "--fps", str(fps), *SIZES[size], addr=ADDR, port=port,
                                        stdout=subprocess.DEVNULL)
        return proc, port

    def start_ostrel(self, cam_port, seconds, channel=None, slot=None, binary=None):
        """The daemon in the foreground with its own working directory
        (ostrel-<slot>, the channel number by default). Daemons in different
        directories may share a channel number: the channel chooses only
        names inside the working directory and the configuration keys.
        Returns (daemon, consumer argv)."""
        if channel is None:
            self.channel = self.channel % 99 + 1
            channel = self.channel
        slot = slot or channel
        ctl = PORTS.take()
        work = os.path.join(self.work, "ostrel-%02d" % slot)
        shutil.rmtree(work, ignore_errors=True)
        files.make_workdir(work, ("conf", "log", "mem", "states"))
        files.write_config(work, channel, comment="a benchmark channel", encoder_ip=ADDR, encoder_port=ctl,
                           translator_connect_ip=ADDR, translator_connect_port=9,
                           translator_calarm_rec_postterm=86400)
        files.write_directory_conf(work, os.path.join(work, "states"))
        harness.redirect_camera(ctl, cam_port, addr=ADDR, camera_addr=ADDR)
        proc = procs.start_foreground(self.procs, work, str(channel), port=ctl, binary=binary,
                                      states=files.states_path(work, str(channel), os.path.join(work, "states")),
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # Each viewer its own first local port; the viewer uses the 10,000
        # ports from there on (so the first must stay at or below 55535) and
        # moves on past busy ones.
        viewer = [harness.VIEWER, "--control", "%s:%d" % (ADDR, ctl),
                  "--bind", "%s:%d" % (ADDR, 30000 + (slot % 50) * 500), "--seconds", str(seconds),
                  "--idle-ms", "30000"]
        return proc, viewer

    def start_relay(self, kind, cam_port, seconds):
        out = PORTS.take()
        cam_url = "http://%s:%d%s" % (ADDR, cam_port, CAM_PATH)
        sink = os.path.join(self.build, "bench", "ostrel-mjpegsink")
        if kind == "ostrel":
            return self.start_ostrel(cam_port, seconds)
        if kind == "ref":
            proc = self.spawn([os.path.join(self.build, "bench", "ostrel-refrelay"),
                                     "%s:%d" % (ADDR, out), "%s:%d" % (ADDR, cam_port), CAM_PATH])
            wait_for(lambda: is_listening(ADDR, out), "the reference relay", 20)
            return proc, [sink, "%s:%d" % (ADDR, out), "/", str(seconds)]
        if kind == "ffmpeg":
            # Low-latency input settings; -c copy relays the pictures unchanged.
            proc = self.spawn(["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error",
                                     "-fflags", "nobuffer", "-probesize", "32", "-analyzeduration", "0",
                                     "-f", "mpjpeg", "-i", cam_url, "-c", "copy", "-f", "mpjpeg",
                                     "-flush_packets", "1", "-listen", "1",
                                     "http://%s:%d/stream" % (ADDR, out)],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            wait_for(lambda: is_listening(ADDR, out), "ffmpeg's HTTP output", 20)
            return proc, [sink, "%s:%d" % (ADDR, out), "/stream", str(seconds)]
        if kind == "motion":
            d = os.path.join(self.work, "motion-%d" % out)
            os.makedirs(d, exist_ok=True)
            conf = os.path.join(d, "motion.conf")
            with open(conf, "w") as f:
                # Nothing written to disk; stream at the camera's rate.
                f.write("daemon off\nsetup_mode off\nlog_level 4\nlog_file %s/motion.log\n"
                        "target_dir %s\nnetcam_url %s\nframerate %d\npicture_output off\n"
                        "movie_output off\nstream_port %d\nstream_localhost off\n"
                        "stream_maxrate %d\nstream_quality 75\nwebcontrol_port 0\n"
                        % (d, d, cam_url, self.motion_fps, out, self.motion_fps))
            proc = self.spawn(["motion", "-n", "-c", conf], stdout=subprocess.DEVNULL,
                                    stderr=subprocess.DEVNULL)
            wait_for(lambda: is_listening(ADDR, out), "motion's stream port", 20)
            return proc, [sink, "%s:%d" % (ADDR, out), "/", str(seconds)]
        raise ValueError(kind)

    def run(self, kind, size, fps, measure=None, warmup=None):
        """One run: camera, relay, viewer. Figures over the measuring window."""
        measure = measure or self.a.measure
        warmup = self.a.warmup if warmup is None else warmup
        self.motion_fps = min(100, fps if fps > 0 else 100)
        cam, cam_port = self.camera(fps, size)
        relay = None
        cons = None
        try:
            relay, argv = self.start_relay(kind, cam_port, warmup + measure + 1)
            cons = Consumer(argv)
            # The window opens once pictures flow and the warm-up has passed.
            wait_for(lambda: cons.pictures or cons.proc.poll() is not None, "the first picture", 20)
            time.sleep(warmup)
            t0, c0, k0 = time.monotonic(), cpu_seconds(relay.pid), cpu_ticks_seconds(relay.pid)
            time.sleep(measure)
            t1, c1, k1 = time.monotonic(), cpu_seconds(relay.pid), cpu_ticks_seconds(relay.pid)
            peak, rss = memory_kb(relay.pid)
            cons.finish(warmup + measure + 30)
        finally:
            if cons and cons.proc.poll() is None:
                cons.proc.kill()
            self.cleanup()
        pics = cons.window(t0, t1)
        seqs = [p[1] for p in pics if p[1] is not None]
        lats = sorted(p[2] for p in pics if p[2] is not None)
        lost = sum(b - a - 1 for a, b in zip(seqs, seqs[1:]) if b > a + 1)
        n = len(pics)
        span = t1 - t0
        r = {"relay": kind, "size": size, "fps_in": fps, "frames": n, "fps_out": n / span,
             "cpu_s": c1 - c0, "cpu_ticks_s": k1 - k0, "cpu_pct": 100.0 * (c1 - c0) / span,
             "cpu_us_per_frame": 1e6 * (c1 - c0) / n if n else None,
             "lost": lost if seqs else None, "stamped": len(seqs),
             "peak_kb": peak, "rss_kb": rss}
        if lats:
            r.update(p50=pct(lats, 50), p99=pct(lats, 99), max=lats[-1])
        if not pics:
            r["error"] = cons.err.strip()[-300:]
        return r

    def exchange_run(self, kind, seconds):
        """One viewer pull of `seconds` against the daemon, the reference
        server or the daemon of --ostrel-before (kind "ostrel", "refpre",
        "before"), camera at 30 fps, 18 KB. CPU of each thread from just
        before the viewer starts to just after it ended (login to logout),
        split by role."""
        cam, cam_port = self.camera(30, "18KB")
        try:
            if kind in ("ostrel", "before"):
                relay, viewer = self.start_ostrel(cam_port, seconds,
                                                  binary=self.a.ostrel_before if kind == "before" else None)
            else:
                ctl = PORTS.take()
                relay = self.spawn([os.path.join(self.build, "bench", "ostrel-refpreimage"),
                                    "%s:%d" % (ADDR, ctl), "%s:%d" % (ADDR, cam_port), CAM_PATH])
                wait_for(lambda: is_listening(ADDR, ctl), "the reference pre-image server", 20)
                self.channel = self.channel % 99 + 1
                viewer = [harness.VIEWER, "--control", "%s:%d" % (ADDR, ctl),
                          "--bind", "%s:%d" % (ADDR, 30000 + (self.channel % 50) * 500),
                          "--seconds", str(seconds), "--idle-ms", "30000"]
            # Wait until every thread has started (the daemon starts its
            # threads after the control port listens).
            want = 2 if kind == "refpre" else 5  # main, figures, 2 control, camera
            wait_for(lambda: len(os.listdir("/proc/%d/task" % relay.pid)) >= want, "the threads", 20)
            roles = thread_roles(relay.pid, kind)
            c0 = thread_cpu(relay.pid)
            v = subprocess.run(viewer + ["--quiet"], capture_output=True, text=True, timeout=seconds + 60)
            c1 = thread_cpu(relay.pid)
        finally:
            self.cleanup()
        m = re.search(r"summary: pictures=(\d+) .*gaps=(\d+) waits=(\d+) faults=(\d+)", v.stdout)
        if not m:
            return {"kind": kind, "error": (v.stdout + v.stderr).strip()[-300:]}
        pics, gaps, waits, faults = (int(x) for x in m.groups())
        cpu = {"control": 0.0, "camera": 0.0, "main": 0.0, "figures": 0.0}
        for tid, role in roles.items():
            cpu[role] += c1.get(tid, 0.0) - c0.get(tid, 0.0)
        exchanges = pics + waits + 2  # with the login and the logout
        return {"kind": kind, "pictures": pics, "gaps": gaps, "waits": waits, "faults": faults,
                "exchanges": exchanges, "control_s": cpu["control"], "camera_s": cpu["camera"],
                "main_s": cpu["main"], "threads": len(roles),
                "us_per_exchange": 1e6 * cpu["control"] / exchanges,
                "us_per_picture": 1e6 * cpu["camera"] / (pics + gaps) if pics else None}

    def exchanges(self, repeats, seconds):
        """The daemon and the reference server taken in turn (the order
        alternates), `repeats` pulls each."""
        runs = []
        kinds = ["ostrel", "refpre"] + (["before"] if self.a.ostrel_before else [])
        for rep in range(repeats):
            for kind in kinds[rep % len(kinds):] + kinds[:rep % len(kinds)]:
                r = self.exchange_run(kind, seconds)
                r["repeat"] = rep
                runs.append(r)
                if "error" in r:
                    log("exchange %d %-6s ERROR %s" % (rep, kind, r["error"]))
                else:
                    log("exchange %d %-6s exchanges=%d pictures=%d waits=%d  control %.1f us/exchange  "
                        "camera %s us/picture" % (rep, kind, r["exchanges"], r["pictures"], r["waits"],
                                                  r["us_per_exchange"], fmt(r["us_per_picture"])))
        s = summarise_exchanges(runs)
        for what, key in (("exchange", "us_per_exchange"), ("camera picture", "us_per_picture")):
            o, ref, old = s.get(("ostrel", key)), s.get(("refpre", key)), s.get(("before", key))
            if o and ref:
                log("per %s: Ostrel %.1f us, reference %.1f us: %.2fx%s" % (
                    what, o, ref, o / ref, " (before: %.1f us, %.2fx)" % (old, old / ref) if old else ""))
        return runs

    def lossless(self, r, fps):
        if r["stamped"] < 10 or r["lost"]:
            return False
        return fps == 0 or r["fps_out"] >= 0.97 * fps

    def ladder(self, kind, size):
        """Rising camera rates until frames are lost; the last unthrottled
        step shows what the relay takes when the camera is not the limit."""
        steps = []
        best = None
        for fps in self.a.ladder:
            r = self.run(kind, size, fps, measure=self.a.ladder_measure, warmup=1.0)
            r["ok"] = self.lossless(r, fps)
            steps.append(r)
            log("  ladder %-6s %-5s fps=%-4s out=%.1f lost=%s p99=%s ok=%s" % (
                kind, size, fps or "max", r["fps_out"], r["lost"], fmt(r.get("p99")), r["ok"]))
            if not r["ok"]:
                break
            best = r["fps_out"]
        return best, steps

    def locked(self, fn):
        """fn() holding the --lock file (flock), if one was given: the
        heavy trials then take turns with other users of the machine
        (builds), and the lock is free between them."""
        if not self.a.lock:
            return fn()
        import fcntl
        with open(self.a.lock, "a") as lk:
            fcntl.flock(lk, fcntl.LOCK_EX)
            try:
                return fn()
            finally:
                fcntl.flock(lk, fcntl.LOCK_UN)

    def channels(self):
        """Daemons side by side, each with its own camera at 30 fps (18 KB)
        and its own viewer: the largest count where every channel gets every
        frame with p99 latency under 100 ms. Doubling, then halving the gap,
        up to --channels-max daemons (channel numbers go round 1..99 past
        the 99th daemon, each daemon in its own working directory)."""
        results = {}

        def trial(n):
            if n in results:
                return results[n]["ok"]
            r = self.locked(lambda: self.channel_trial(n))
            results[n] = r
            log("  channels n=%d ok=%s worst_p99=%s lost=%s short_channels=%d cpu=%.0f%%" % (
                n, r["ok"], fmt(r["worst_p99"]), r["lost"], r["short_channels"], r["cpu_pct"]))
            return r["ok"]

        lo, hi = self.a.channels_passed, None
        top = self.a.channels_max
        n = min(self.a.channels_start, top)
        while n <= top:
            if trial(n):
                lo = n
                n = min(top, n * 2) if n < top else top + 1
            else:
                hi = n
                break
        if hi is not None:
            while hi - lo > max(2, lo // 8):
                mid = (lo + hi) // 2
                if trial(mid):
                    lo = mid
                else:
                    hi = mid
        return lo, results

    def channel_trial(self, n):
        """n daemons at once. The window is taken by sequence number, not by
        arrival time: the cameras are paced at exactly 30 fps from their
        first picture, and a machine this busy delays the reading of the
        viewers' output lines by seconds. Pictures from the first one seen
        + 30 x warm-up on, 30 x measure of them, must all arrive."""
        cams, daemons, cons = [], [], []
        first_ok = int(30 * self.a.warmup)
        want = int(30 * self.a.measure)
        seconds = self.a.warmup + self.a.measure + 5
        try:
            for ch in range(1, n + 1):
                cam, port = self.camera(30, "18KB")
                cams.append(cam)
                proc, viewer = self.start_ostrel(port, seconds, channel=(ch - 1) % 99 + 1, slot=ch)
                daemons.append(proc)
            for ch in range(1, n + 1):
                cons.append(Consumer(self._viewer_for(ch, seconds)))
            wait_for(lambda: all(c.pictures or c.proc.poll() is not None for c in cons),
                     "pictures on every channel", 60)
            time.sleep(self.a.warmup)
            t0 = time.monotonic()
            b0, tb0 = machine_busy_seconds(), time.monotonic()
            c0 = sum(cpu_seconds(p.pid) for p in daemons)
            time.sleep(self.a.measure)
            t1 = time.monotonic()
            c1 = sum(cpu_seconds(p.pid) for p in daemons)
            # Everything on the machine (cameras, viewers, this script and
            # whatever else runs), in % of one core.
            machine_busy = 100.0 * (machine_busy_seconds() - b0) / (time.monotonic() - tb0)
            mem = [memory_kb(p.pid)[1] for p in daemons]
            for c in cons:
                c.finish(seconds + 60)
        finally:
            for c in cons:
                if c.proc.poll() is None:
                    c.proc.kill()
            self.cleanup()
        lost, worst, stalled = 0, 0.0, 0
        for c in cons:
            seqs = [p for p in c.pictures if p[1] is not None]
            if not seqs:
                lost += want
                stalled += 1
                continue
            lo = seqs[0][1] + first_ok
            pics = [p for p in seqs if lo <= p[1] < lo + want]
            lats = sorted(p[2] for p in pics if p[2] is not None)
            lost += want - len(pics)
            stalled += 1 if len(pics) < want else 0
            worst = max(worst, pct(lats, 99) if lats else 1e9)
        return {"n": n, "ok": lost == 0 and worst < 100.0, "lost": lost, "short_channels": stalled,
                "worst_p99": worst, "cpu_pct": 100.0 * (c1 - c0) / (t1 - t0),
                "machine_busy_pct": machine_busy,
                "rss_kb_mean": sum(mem) / len(mem)}

    def _viewer_for(self, ch, seconds):
        work = os.path.join(self.work, "ostrel-%02d" % ch)
        with open(os.path.join(work, "conf", "Config.txt")) as f:
            ctl = int(re.search(r"encoder_port_\d+=(\d+)", f.read()).group(1))
        return [harness.VIEWER, "--control", "%s:%d" % (ADDR, ctl),
                "--bind", "%s:%d" % (ADDR, 30000 + (ch % 50) * 500), "--seconds", str(seconds),
                "--idle-ms", "30000"]


def summarise_exchanges(runs):
    """{(kind, figure): median over the repeats}"""
    out = {}
    for kind in ("ostrel", "refpre", "before"):
        for key in ("us_per_exchange", "us_per_picture", "waits", "pictures", "exchanges"):
            out[(kind, key)] = median([r.get(key) for r in runs if r["kind"] == kind and "error" not in r])
    return out


def pct(sorted_vals, p):
    if not sorted_vals:
        return None
    k = min(len(sorted_vals) - 1, max(0, int(round(p / 100.0 * len(sorted_vals) + 0.5)) - 1))
    return sorted_vals[k]


def fmt(v, form="%.1f"):
    return "n/a" if v is None else form % v


def log(msg):
    print(msg, flush=True)


def median(vals):
    vals = [v for v in vals if v is not None]
    return statistics.median(vals) if vals else None


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--out", required=True, help="JSON file of all runs")
    ap.add_argument("--repeats", type=int, default=3)
    ap.add_argument("--warmup", type=float, default=2.0)
    ap.add_argument("--measure", type=float, default=6.0)
    ap.add_argument("--ladder", type=lambda s: [int(x) for x in s.split(",")],
                    default=[30, 45, 60, 120, 240, 480, 0])
    ap.add_argument("--ladder-measure", type=float, default=3.0)
    ap.add_argument("--relays", type=lambda s: s.split(","), default=RELAYS)
    ap.add_argument("--sizes", type=lambda s: s.split(","), default=list(SIZES))
    ap.add_argument("--channels-start", type=int, default=8)
    ap.add_argument("--channels-max", type=int, default=512,
                    help="most daemons the channel search tries")
    ap.add_argument("--only-channels", action="store_true", help="only the channel search")
    ap.add_argument("--channels-passed", type=int, default=0,
                    help="a count known to pass: the search narrows down from there when its start fails")
    ap.add_argument("--lock", help="a file to flock around each channel trial")
    ap.add_argument("--no-channels", action="store_true")
    ap.add_argument("--no-ladder", action="store_true")
    ap.add_argument("--exchange-repeats", type=int, default=3)
    ap.add_argument("--exchange-seconds", type=float, default=10.0)
    ap.add_argument("--ostrel-before", help="a daemon binary to compare with, taken in turn with the others")
    ap.add_argument("--only-exchange", action="store_true",
                    help="only the per-exchange comparison with the reference server")
    a = ap.parse_args()
    # A time limit (timeout(1)) ends the run through the cleanup paths, so
    # no camera or relay is left behind.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    b = Bench(a)
    data = {"runs": [], "ladders": [], "channels": None, "machine": machine(),
            "settings": {k: v for k, v in vars(a).items() if k not in ("build", "work", "out")}}
    if a.only_channels:
        n, trials = b.channels()
        data["channels"] = {"max": n, "top": a.channels_max, "trials": [trials[k] for k in sorted(trials)]}
        log("channels per machine: %d" % n)
        with open(a.out, "w") as f:
            json.dump(data, f, indent=1)
        return 0
    if a.exchange_repeats > 0 and not a.only_channels:
        data["exchanges"] = b.exchanges(a.exchange_repeats, a.exchange_seconds)
        with open(a.out, "w") as f:
            json.dump(data, f, indent=1)
    if a.only_exchange:
        return 1 if any("error" in r for r in data["exchanges"]) else 0
    for rep in range(a.repeats):
        # Rotating the order spreads any drift of the machine over all relays.
        order = a.relays[rep % len(a.relays):] + a.relays[:rep % len(a.relays)]
        for size in a.sizes:
            for kind in order:
                r = b.run(kind, size, 30)
                r["repeat"] = rep
                data["runs"].append(r)
                log("run %d %-6s %-5s 30fps: out=%.1f cpu=%.1f%% %s us/frame p50=%s p99=%s max=%s "
                    "lost=%s peak=%dKB rss=%dKB%s" % (
                        rep, kind, size, r["fps_out"], r["cpu_pct"], fmt(r["cpu_us_per_frame"], "%.0f"),
                        fmt(r.get("p50"), "%.2f"), fmt(r.get("p99"), "%.2f"), fmt(r.get("max"), "%.2f"),
                        r["lost"], r["peak_kb"], r["rss_kb"], (" ERROR " + r["error"]) if "error" in r else ""))
            if not a.no_ladder:
                for kind in order:
                    if kind == "motion":
                        continue  # no stamp survives motion: loss cannot be told
                    best, steps = b.ladder(kind, size)
                    data["ladders"].append({"relay": kind, "size": size, "repeat": rep,
                                            "best": best, "steps": steps})
        with open(a.out, "w") as f:
            json.dump(data, f, indent=1)
    if not a.no_channels:
        n, trials = b.channels()
        data["channels"] = {"max": n, "top": a.channels_max, "trials": [trials[k] for k in sorted(trials)]}
        log("channels per machine: %d" % n)
    with open(a.out, "w") as f:
        json.dump(data, f, indent=1)
    failed = [r for r in data["runs"] if "error" in r]
    for r in failed:
        log("no pictures from %s (%s): %s" % (r["relay"], r["size"], r["error"]))
    return 1 if failed else 0


def machine():
    model = ""
    try:
        with open("/proc/cpuinfo") as f:
            m = re.search(r"model name\s*:\s*(.*)", f.read())
            model = m.group(1) if m else ""
    except OSError:
        pass
    ver = {}
    for name, argv in (("ffmpeg", ["ffmpeg", "-version"]), ("motion", ["motion", "-h"])):
        try:
            out = subprocess.run(argv, capture_output=True, text=True, timeout=10)
            ver[name] = (out.stdout + out.stderr).splitlines()[0]
        except (OSError, subprocess.TimeoutExpired, IndexError):
            ver[name] = "missing"
    return {"cpu": model, "cores": os.cpu_count(), "kernel": os.uname().release, "versions": ver,
            "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())}


if __name__ == "__main__":
    sys.exit(main())
