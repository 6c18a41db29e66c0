#!/usr/bin/env python3
"""Turns the runner's JSON (bench/run_bench.py) and the micro-benchmarks'
JSON (Google Benchmark --benchmark_out) into one table on standard output,
the generated part of docs/PERFORMANCE.md (between the two "results" marker
comments; the hand-written rest of the file is kept) and the plot
docs/performance.png (gnuplot; skipped when gnuplot is missing).

Every figure is the median over the repeats; ratios compare medians of the
same run."""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
from statistics import median

BEGIN = "<!-- results:begin -->"
END = "<!-- results:end -->"
NAMES = {"ostrel": "Ostrel", "ref": "reference relay", "ffmpeg": "ffmpeg -c copy", "motion": "motion"}


def med(vals):
    vals = [v for v in vals if v is not None]
    return median(vals) if vals else None


def f(v, form="%.1f"):
    return "n/a" if v is None else form % v


def ratio(a, b):
    return "n/a" if a is None or not b else "%.2fx" % (a / b)


def verdict(ok, known):
    return "not measured" if not known else ("met" if ok else "missed")


def short(version):
    return " ".join(version.split()[:3]).rstrip(",")


def summarise(data):
    """{(relay, size): {figure: median}}"""
    out = {}
    keys = sorted({(r["relay"], r["size"]) for r in data["runs"]})
    for k in keys:
        runs = [r for r in data["runs"] if (r["relay"], r["size"]) == k]
        fig = {n: med([r.get(n) for r in runs]) for n in
               ("cpu_us_per_frame", "cpu_pct", "fps_out", "p50", "p99", "max", "peak_kb", "rss_kb")}
        fig["lost"] = sum(r["lost"] or 0 for r in runs) if any(r["lost"] is not None for r in runs) else None
        fig["repeats"] = len(runs)
        ladders = [l for l in data.get("ladders", []) if (l["relay"], l["size"]) == k]
        fig["max_lossless_fps"] = med([l["best"] for l in ladders]) if ladders else None
        out[k] = fig
    return out


def tables(data, micro):
    s = summarise(data)
    sizes = sorted({k[1] for k in s}, key=lambda x: int(x.rstrip("KB")))
    relays = [r for r in NAMES if any(k[0] == r for k in s)]
    lines = []
    m = data.get("machine", {})
    st = data.get("settings", {})
    lines.append("Measured %s on %s (%s cores, kernel %s); %s; %s. Median of %s runs of %.0f s after "
                 "%.0f s of warm-up per relay and picture size, relays in rotating order, all on "
                 "loopback in one network namespace." % (
                     m.get("date", "?"), m.get("cpu", "?"), m.get("cores", "?"), m.get("kernel", "?"),
                     short(m.get("versions", {}).get("ffmpeg", "?")), short(m.get("versions", {}).get("motion", "?")),
                     st.get("repeats", "?"), st.get("measure", 0), st.get("warmup", 0)))
    lines.append("")
    for size in sizes:
        lines.append("### %s pictures, camera at 30 frames per second" % size)
        lines.append("")
        lines.append("| relay | CPU µs/frame | CPU % of a core | vs Ostrel | fps out | lost | latency p50 / p99 / max ms "
                     "| RSS peak / steady MB | lossless fps max |")
        lines.append("|---|---|---|---|---|---|---|---|---|")
        base = s.get(("ostrel", size), {}).get("cpu_us_per_frame")
        for r in relays:
            x = s.get((r, size))
            if not x:
                continue
            lines.append("| %s | %s | %s | %s | %s | %s | %s / %s / %s | %s / %s | %s |" % (
                NAMES[r], f(x["cpu_us_per_frame"], "%.0f"), f(x["cpu_pct"], "%.2f"),
                "1.00x" if r == "ostrel" else ratio(base, x["cpu_us_per_frame"]),
                f(x["fps_out"]), f(x["lost"], "%d"), f(x["p50"], "%.2f"), f(x["p99"], "%.2f"),
                f(x["max"], "%.2f"), f(x["peak_kb"] and x["peak_kb"] / 1024.0), f(x["rss_kb"] and x["rss_kb"] / 1024.0),
                f(x["max_lossless_fps"], "%.0f")))
        lines.append("")
    lines.append("\"vs Ostrel\" is Ostrel's CPU per frame divided by the relay's (3.00x: Ostrel spends three "
                 "times as much). motion decodes and re-encodes every picture, so the camera's stamp does "
                 "not survive it: no latency, loss or lossless rate can be read for it; its output rate is "
                 "capped at the camera's rate (stream_maxrate).")
    lines.append("")
    ex = data.get("exchanges")
    if ex:
        lines.extend(exchange_table(ex, data.get("settings", {}).get("exchange_seconds", 10)))
    ch = data.get("channels")
    if ch:
        lines.append("### Channels per machine")
        lines.append("")
        top = ch.get("top", 99)
        lines.append("Largest number of daemons, each with its own camera (30 fps, 18 KB) and its own viewer, "
                     "with every frame delivered and p99 latency under 100 ms on every channel: "
                     "**%d**%s." % (ch["max"], " (the most the search tries)" if ch["max"] >= top else ""))
        lines.append("")
        lines.append("| daemons | passed | frames missing | channels short | worst p99 ms | CPU % (all daemons) "
                     "| machine busy % | RSS per daemon MB |")
        lines.append("|---|---|---|---|---|---|---|---|")
        for t in ch["trials"]:
            lines.append("| %d | %s | %d | %s | %s | %.0f | %s | %.1f |" % (
                t["n"], "yes" if t["ok"] else "no", t["lost"], t.get("short_channels", "?"),
                f(t["worst_p99"] if t["worst_p99"] < 1e8 else None), t["cpu_pct"],
                f(t.get("machine_busy_pct"), "%.0f"), t["rss_kb_mean"] / 1024.0))
        lines.append("")
        lines.append("CPU % is of one core (the machine has two: 200 %); \"machine busy\" counts everything, "
                     "the cameras, viewers and the benchmark itself included.")
        lines.append("")
    if micro:
        lines.append("### Micro-benchmarks")
        lines.append("")
        lines.append("| benchmark | time per operation | CPU per operation |")
        lines.append("|---|---|---|")
        for b in micro.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            name = b["name"][:-len("_median")] if b["name"].endswith("_median") else b["name"]
            lines.append("| %s | %.0f %s | %.0f %s |" % (name, b["real_time"], b["time_unit"],
                                                      b["cpu_time"], b["time_unit"]))
        lines.append("")
    return "\n".join(lines)


def exchange_summary(runs):
    out = {}
    for kind in ("ostrel", "refpre", "before"):
        rs = [r for r in runs if r["kind"] == kind and "error" not in r]
        if rs:
            out[kind] = {k: med([r.get(k) for r in rs]) for k in
                         ("us_per_exchange", "us_per_picture", "exchanges", "pictures", "waits")}
            out[kind]["repeats"] = len(rs)
    return out


def exchange_table(runs, seconds):
    s = exchange_summary(runs)
    ref = s.get("refpre", {})
    names = {"ostrel": "Ostrel", "before": "Ostrel before", "refpre": "same-protocol reference"}
    lines = ["### Per exchange and per camera picture, against the same protocol", "",
             "Each server pulled by `ostrel-viewer` for %s s from its own camera (30 fps, 18 KB); "
             "median of %d runs each, taken in turn." % (
                 "%g" % seconds, min(x["repeats"] for x in s.values())), "",
             "| server | exchanges | of them \"not yet\" | CPU µs per exchange (answering threads) | vs reference "
             "| CPU µs per camera picture (camera thread) | vs reference |",
             "|---|---|---|---|---|---|---|"]
    for kind in ("ostrel", "before", "refpre"):
        x = s.get(kind)
        if not x:
            continue
        lines.append("| %s | %s | %s | %s | %s | %s | %s |" % (
            names[kind], f(x["exchanges"], "%.0f"), f(x["waits"], "%.0f"), f(x["us_per_exchange"]),
            ratio(x["us_per_exchange"], ref.get("us_per_exchange")), f(x["us_per_picture"]),
            ratio(x["us_per_picture"], ref.get("us_per_picture"))))
    lines.append("")
    return lines


def targets(data):
    s = summarise(data)
    out = []
    for size in sorted({k[1] for k in s}):
        o = s.get(("ostrel", size), {})
        c = o.get("cpu_us_per_frame")
        for peer in ("ffmpeg", "motion"):
            p = s.get((peer, size), {}).get("cpu_us_per_frame")
            out.append("- %s, CPU per frame below %s's: %s (%s vs %s µs)" % (
                size, peer, verdict(c and p and c < p, c and p), f(c, "%.0f"), f(p, "%.0f")))
        r = s.get(("ref", size), {}).get("cpu_us_per_frame")
        out.append("- %s, CPU per frame within 3x of the reference relay: %s (%s)" % (
            size, verdict(c and r and c <= 3 * r, c and r), ratio(c, r)))
        out.append("- %s, p99 latency at 30 fps under 20 ms: %s (%s ms)" % (
            size, verdict(o.get("p99") is not None and o["p99"] < 20, o.get("p99") is not None),
            f(o.get("p99"), "%.2f")))
        out.append("- %s, resident memory under 10 MB while streaming: %s (peak %s MB)" % (
            size, verdict(o.get("peak_kb") and o["peak_kb"] < 10240, o.get("peak_kb")),
            f(o.get("peak_kb") and o["peak_kb"] / 1024.0)))
    ex = exchange_summary(data.get("exchanges") or [])
    if "ostrel" in ex and "refpre" in ex:
        for what, key, goal in (("exchange", "us_per_exchange", 1.3), ("camera picture", "us_per_picture", 1.5)):
            o, r = ex["ostrel"][key], ex["refpre"][key]
            out.append("- CPU per %s within %.1fx of the same-protocol reference: %s (%s)" % (
                what, goal, verdict(o and r and o <= goal * r, o and r), ratio(o, r)))
    ch = data.get("channels")
    if ch:
        out.append("- at least 64 channels per 2-core machine: %s (%d)" % (
            verdict(ch["max"] >= 64, True), ch["max"]))
    return "\n".join(out)


def plot(data, png):
    """Latency (p50, p99) and CPU % against the camera's frame rate, 18 KB
    pictures, from the paced steps of the rising-rate runs (median per
    step)."""
    if not shutil.which("gnuplot"):
        print("report: gnuplot missing, no plot", file=sys.stderr)
        return False
    series = {}
    for l in data.get("ladders", []):
        if l["size"] != "18KB":
            continue
        for st in l["steps"]:
            if not st["fps_in"]:
                continue  # unthrottled: its rate differs run by run; in the table
            fps = st["fps_in"]
            series.setdefault(l["relay"], {}).setdefault(round(fps), []).append(st)
    if not series:
        return False
    tmp = tempfile.mkdtemp()
    files = {}
    for relay, steps in series.items():
        path = os.path.join(tmp, relay + ".dat")
        with open(path, "w") as out:
            for fps in sorted(steps):
                sts = steps[fps]
                out.write("%d %s %s %s\n" % (fps, f(med([x.get("p50") for x in sts]), "%.3f").replace("n/a", "NaN"),
                                             f(med([x.get("p99") for x in sts]), "%.3f").replace("n/a", "NaN"),
                                             "%.3f" % med([x["cpu_pct"] for x in sts])))
        files[relay] = path
    script = ["set terminal png size 1000,420", "set output '%s'" % png, "set multiplot layout 1,2",
              "set logscale x 2", "set xlabel 'camera frames per second (18 KB pictures)'", "set grid",
              "set key top left", "set title 'latency camera -> viewer (ms)'", "set logscale y 10"]
    parts = []
    for relay, path in files.items():
        parts.append("'%s' using 1:2 with linespoints title '%s p50'" % (path, NAMES[relay]))
        parts.append("'%s' using 1:3 with linespoints dashtype 2 title '%s p99'" % (path, NAMES[relay]))
    script.append("plot " + ", ".join(parts))
    script.append("set title 'relay CPU (% of one core)'")
    script.append("plot " + ", ".join("'%s' using 1:4 with linespoints title '%s'" % (p, NAMES[r])
                                      for r, p in files.items()))
    script.append("unset multiplot")
    r = subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, capture_output=True)
    shutil.rmtree(tmp, ignore_errors=True)
    if r.returncode != 0:
        print("report: gnuplot: " + r.stderr, file=sys.stderr)
    return r.returncode == 0


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("results")
    ap.add_argument("--micro", help="Google Benchmark JSON output")
    ap.add_argument("--doc", help="docs/PERFORMANCE.md to update between the markers")
    ap.add_argument("--png", help="plot to write")
    a = ap.parse_args()
    with open(a.results) as fh:
        data = json.load(fh)
    micro = None
    if a.micro and os.path.exists(a.micro):
        with open(a.micro) as fh:
            micro = json.load(fh)
    text = tables(data, micro) + "\n### Targets\n\n" + targets(data) + "\n"
    print(text)
    if a.png and plot(data, a.png):
        text += "\n![latency and CPU against frame rate](%s)\n" % os.path.basename(a.png)
    if a.doc:
        doc = open(a.doc).read() if os.path.exists(a.doc) else "%s\n%s\n" % (BEGIN, END)
        head, rest = doc.split(BEGIN, 1)
        tail = rest.split(END, 1)[1]
        with open(a.doc, "w") as fh:
            fh.write(head + BEGIN + "\n" + text + END + tail)


if __name__ == "__main__":
    main()
