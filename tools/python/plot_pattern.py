#!/usr/bin/python3
"""Draws the tables `kivbf pattern` writes into DIR as DIR/pattern.png (or .svg).

Top left: polar response at a few frequencies. Top right: gain over direction
and frequency. Bottom: directivity index and white-noise gain per frequency.
"""
import argparse
import os

import numpy as np
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

POLAR_FREQUENCIES_HZ = (250, 500, 1000, 2000, 4000, 8000, 16000)
MAP_FLOOR_DB = -30.0


def read_response(path):
    with open(path) as f:
        directions = np.array([float(v) for v in f.readline().strip().split(",")[1:]])
    table = np.loadtxt(path, delimiter=",", skiprows=1, ndmin=2)
    return table[:, 0], directions, table[:, 1:]


def read_metrics(path):
    table = np.loadtxt(path, delimiter=",", skiprows=1, ndmin=2)
    return table[:, 0], table[:, 1], table[:, 2]


def draw_polar(ax, frequencies, directions, gain_db):
    nyquist = frequencies[-1]
    wanted = [f for f in POLAR_FREQUENCIES_HZ if f < 0.95 * nyquist][-5:]
    theta = np.radians(directions)
    for f in wanted:
        k = int(np.argmin(np.abs(frequencies - f)))
        ax.plot(theta, np.maximum(gain_db[k], MAP_FLOOR_DB), label=f"{frequencies[k]:.0f} Hz")
    ax.set_theta_zero_location("N")
    ax.set_theta_direction(-1)
    ax.set_rlim(MAP_FLOOR_DB, max(3.0, float(np.ceil(gain_db.max()))))
    ax.set_rlabel_position(135)
    ax.set_title("Response (dB) by direction\n0 deg = broadside", fontsize=10)
    ax.legend(loc="lower left", bbox_to_anchor=(-0.25, -0.2), fontsize=8)


def draw_map(fig, ax, frequencies, directions, gain_db):
    top = max(0.0, float(gain_db.max()))
    image = ax.pcolormesh(directions, frequencies / 1000.0, gain_db, shading="nearest",
                          vmin=MAP_FLOOR_DB, vmax=top, cmap="viridis", rasterized=True)
    ax.set_xlabel("Direction (degrees, 0 = broadside)")
    ax.set_ylabel("Frequency (kHz)")
    ax.set_xticks(np.arange(-180, 181, 45))
    ax.set_title("Response over direction and frequency", fontsize=10)
    fig.colorbar(image, ax=ax, label="Gain (dB)")


def draw_metrics(ax, frequencies, directivity_db, wng_db):
    ax.plot(frequencies / 1000.0, directivity_db, label="Directivity index")
    ax.plot(frequencies / 1000.0, wng_db, label="White-noise gain")
    ax.axhline(0.0, color="grey", linewidth=0.8)
    ax.set_xlabel("Frequency (kHz)")
    ax.set_ylabel("dB")
    ax.set_xlim(0.0, frequencies[-1] / 1000.0)
    ax.grid(True, alpha=0.3)
    ax.legend(fontsize=8)
    ax.set_title("Directivity index and white-noise gain", fontsize=10)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("dir")
    parser.add_argument("--format", choices=("png", "svg"), default="png")
    parser.add_argument("--title", default="kivbf fixed beam")
    args = parser.parse_args()

    frequencies, directions, gain_db = read_response(os.path.join(args.dir, "pattern_response.csv"))
    metric_freqs, directivity_db, wng_db = read_metrics(os.path.join(args.dir, "pattern_metrics.csv"))

    fig = plt.figure(figsize=(12, 9))
    grid = fig.add_gridspec(2, 2, height_ratios=(1.3, 1.0), width_ratios=(1.0, 1.4))
    draw_polar(fig.add_subplot(grid[0, 0], projection="polar"), frequencies, directions, gain_db)
    draw_map(fig, fig.add_subplot(grid[0, 1]), frequencies, directions, gain_db)
    draw_metrics(fig.add_subplot(grid[1, :]), metric_freqs, directivity_db, wng_db)
    fig.suptitle(f"Fixed beam: {args.title}")
    fig.tight_layout()
    fig.savefig(os.path.join(args.dir, f"pattern.{args.format}"), dpi=100)


if __name__ == "__main__":
    main()
