"""Draws the chaos run's samples: plot_chaos.py SAMPLES.csv OUT.png.

Three panels over the run: the daemon's resident memory (VmRSS), its open
descriptors and the pictures handed to the viewer per second. Needs
matplotlib (Debian's python3-matplotlib, installed by scripts/setup.sh);
without it nothing is drawn and the exit status is 3."""

import csv
import sys


def main():
    samples, out = sys.argv[1], sys.argv[2]
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("plot_chaos: matplotlib is not installed; no plot", file=sys.stderr)
        return 3
    with open(samples) as f:
        rows = list(csv.DictReader(f))
    minutes = [float(r["seconds"]) / 60 for r in rows]
    panels = [("rss_kb", "VmRSS (MiB)", 1 / 1024), ("fds", "open descriptors", 1),
              ("pictures_per_second", "pictures / s to the viewer", 1)]
    fig, axes = plt.subplots(len(panels), 1, sharex=True, figsize=(9, 7))
    for ax, (key, label, scale) in zip(axes, panels):
        ax.plot(minutes, [float(r[key]) * scale for r in rows], linewidth=0.8)
        ax.set_ylabel(label)
        ax.set_ylim(bottom=0)
        ax.grid(True, alpha=0.3)
    axes[-1].set_xlabel("minutes into the chaos run")
    fig.suptitle("Ostrel under chaos: memory, descriptors and pictures")
    fig.tight_layout()
    fig.savefig(out, dpi=80)
    return 0


if __name__ == "__main__":
    sys.exit(main())
