#!/usr/bin/python3
"""Draws the spectrograms of the WAV files `kivbf demo` writes into DIR as
DIR/spectrograms.png: the mixture at microphone 0 (scene_mix.wav, left
channel) first, then every modeN_output.wav, on one colour scale."""
import argparse
import glob
import os
import wave

import numpy as np
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

FRAME = 512
HOP = 128
DYNAMIC_RANGE_DB = 80.0


def read_wav(path):
    """First channel as floats in [-1, 1) and the sample rate."""
    with wave.open(path, "rb") as f:
        if f.getsampwidth() != 2:
            raise ValueError(f"{path}: 16-bit PCM expected")
        channels, rate = f.getnchannels(), f.getframerate()
        samples = np.frombuffer(f.readframes(f.getnframes()), dtype="<i2")
    return samples.reshape(-1, channels)[:, 0] / 32768.0, rate


def spectrogram_db(x):
    """Power in dBFS per (frequency, frame) of a Hann-windowed STFT."""
    if len(x) < FRAME:
        x = np.pad(x, (0, FRAME - len(x)))
    window = np.hanning(FRAME)
    frames = np.lib.stride_tricks.sliding_window_view(x, FRAME)[::HOP] * window
    power = np.abs(np.fft.rfft(frames, axis=1)) ** 2 / np.sum(window) ** 2 * 4.0
    return 10.0 * np.log10(power.T + 1e-12)


def inputs(directory):
    """(title, path) of each picture's signal, in display order."""
    found = []
    mix = os.path.join(directory, "scene_mix.wav")
    if os.path.exists(mix):
        found.append(("Input: microphone 0 (scene_mix.wav)", mix))
    for path in sorted(glob.glob(os.path.join(directory, "mode*_output.wav"))):
        mode = os.path.basename(path)[len("mode"):].split("_")[0]
        found.append((f"Output of mode {mode} ({os.path.basename(path)})", path))
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("dir")
    parser.add_argument("--out", help="picture path (default DIR/spectrograms.png)")
    args = parser.parse_args()

    signals = inputs(args.dir)
    if not signals:
        parser.error(f"no scene_mix.wav or mode*_output.wav in {args.dir}")
    columns = 2
    rows = -(-len(signals) // columns)
    fig, axes = plt.subplots(rows, columns, figsize=(13, 3.2 * rows), squeeze=False,
                             sharex=True, sharey=True)
    image = None
    for ax, (title, path) in zip(axes.flat, signals):
        x, rate = read_wav(path)
        level = spectrogram_db(x)
        duration = len(x) / rate
        image = ax.imshow(level, origin="lower", aspect="auto", cmap="magma",
                          extent=(0.0, duration, 0.0, rate / 2000.0),
                          vmin=-DYNAMIC_RANGE_DB - 20.0, vmax=-20.0)
        ax.set_title(title, fontsize=10)
        ax.set_ylabel("Frequency (kHz)")
    for ax in axes.flat[len(signals):]:
        ax.set_visible(False)
    for ax in axes[-1]:
        ax.set_xlabel("Time (s)")
        ax.xaxis.set_tick_params(labelbottom=True)
    fig.colorbar(image, ax=axes, label="Power (dBFS)", shrink=0.8)
    fig.suptitle("kivbf demo: input and output spectrograms")
    fig.savefig(args.out or os.path.join(args.dir, "spectrograms.png"), dpi=72)


if __name__ == "__main__":
    main()
