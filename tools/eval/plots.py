"""Pictures for `kivbf eval --plot`: per-scene bars of each metric, and the
spectrograms of microphone 0 and every processor's output per scene."""
import os

import numpy as np
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import scipy.signal  # noqa: E402

DYNAMIC_RANGE_DB = 80.0


def _bars(path, names, chosen, all_results, tables):
    figure, axes = plt.subplots(len(tables), 1, figsize=(max(8, 0.9 * len(names)), 3.2 * len(tables)),
                                sharex=True, squeeze=False)
    width = 0.8 / len(chosen)
    x = np.arange(len(names))
    for ax, (key, title, _) in zip(axes[:, 0], tables):
        for i, p in enumerate(chosen):
            ax.bar(x + (i - (len(chosen) - 1) / 2) * width, [r[p.key][key] for r in all_results],
                   width, label=p.title)
        ax.axhline(0.0, color="black", linewidth=0.6)
        ax.set_ylabel("dB")
        ax.set_title(title, fontsize=10)
        ax.grid(axis="y", alpha=0.3)
    axes[0, 0].legend(fontsize=8, ncol=3)
    axes[-1, 0].set_xticks(x)
    axes[-1, 0].set_xticklabels(names, rotation=30, ha="right", fontsize=8)
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)


def _spectrogram_db(x, sample_rate):
    frame = 1 << int(round(np.log2(0.032 * sample_rate)))
    f, t, z = scipy.signal.stft(x, fs=sample_rate, nperseg=frame, noverlap=frame * 3 // 4)
    return f, t, 20.0 * np.log10(np.abs(z) + 1e-9)


def _spectrograms(path, rendered, chosen, results):
    signals = [("microphone 0 input", rendered.mixture[:, 0])] + \
        [(p.title, results[p.key]["output"]) for p in chosen]
    figure, axes = plt.subplots(len(signals), 1, figsize=(9, 1.9 * len(signals)), sharex=True)
    top = max(_spectrogram_db(x, rendered.sample_rate)[2].max() for _, x in signals)
    for ax, (title, x) in zip(axes, signals):
        f, t, db = _spectrogram_db(x, rendered.sample_rate)
        ax.pcolormesh(t, f / 1000.0, db, vmin=top - DYNAMIC_RANGE_DB, vmax=top, shading="auto",
                      cmap="magma")
        ax.set_ylabel("kHz")
        ax.set_title(title, fontsize=9)
    axes[0].set_title(f"{rendered.name}: {rendered.description}\nmicrophone 0 input", fontsize=9)
    axes[-1].set_xlabel("s")
    figure.tight_layout()
    figure.savefig(path, dpi=100)
    plt.close(figure)


def draw(out_dir, names, chosen, all_results, rendered_scenes, tables):
    """Writes the pictures; returns their paths."""
    pictures = [os.path.join(out_dir, "metrics.png")]
    _bars(pictures[0], names, chosen, all_results, tables)
    for rendered, results in zip(rendered_scenes, all_results):
        pictures.append(os.path.join(out_dir, f"spectrograms-{rendered.name}.png"))
        _spectrograms(pictures[-1], rendered, chosen, results)
    return pictures
