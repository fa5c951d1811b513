#!/usr/bin/python3
"""kivbf locate: the library's direction finder over a two-channel WAV file.
Prints time (s), direction (degrees, 0 broadside, positive towards microphone
0) and confidence (0..1) every 100 ms; --plot draws the direction over the
spectrogram of microphone 0."""
import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import numpy as np  # noqa: E402
import scipy.io.wavfile  # noqa: E402

import kivbf  # noqa: E402


def main(argv=None):
    parser = argparse.ArgumentParser(prog="kivbf locate", description=__doc__.split("\n")[0])
    parser.add_argument("input", help="two-channel 16-bit WAV file")
    parser.add_argument("--spacing", type=float, default=5.0, help="microphone spacing, cm (5)")
    parser.add_argument("--shape", choices=("linear", "circular"), default="linear")
    parser.add_argument("--temperature", type=int, default=20, help="air temperature, C (20)")
    parser.add_argument("--window", help="C,W: confine the estimate to C +- W degrees")
    parser.add_argument("--every", type=float, default=0.1, help="seconds between lines (0.1)")
    parser.add_argument("--plot", metavar="PNG", nargs="?", const="locate.png",
                        help="draw the direction over the spectrogram (default locate.png)")
    args = parser.parse_args(argv)

    rate, x = scipy.io.wavfile.read(args.input)
    if x.ndim != 2 or x.shape[1] != 2:
        parser.error(f"{args.input} is not a two-channel file")
    window = tuple(float(v) for v in args.window.split(",")) if args.window else None
    shape = kivbf.GEOMETRY_CIRCULAR if args.shape == "circular" else kivbf.GEOMETRY_LINEAR
    degrees, confidence = kivbf.locate(x.astype(np.int16), rate, args.spacing, shape, window,
                                       temperature=args.temperature)
    times = (np.arange(len(degrees)) + 1) * kivbf.POINT_NUMBER / rate
    step = max(1, int(round(args.every * rate / kivbf.POINT_NUMBER)))
    print("time_s\tdirection_deg\tconfidence")
    for b in range(step - 1, len(degrees), step):
        print(f"{times[b]:.2f}\t{degrees[b]:.1f}\t{confidence[b]:.2f}")
    if args.plot:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
        fig, ax = plt.subplots(figsize=(10, 4))
        ax.specgram(x[:, 0].astype(float), NFFT=256, Fs=rate, noverlap=128, cmap="Greys")
        ax.set_ylabel("frequency, Hz")
        ax.set_xlabel("time, s")
        right = ax.twinx()
        right.scatter(times, degrees, c=confidence, cmap="plasma", s=4, vmin=0, vmax=1)
        right.set_ylim(-90, 90)
        right.set_ylabel("direction, degrees (colour: confidence)")
        ax.set_title(os.path.basename(args.input))
        fig.tight_layout()
        fig.savefig(args.plot, dpi=120)
        print(f"picture: {args.plot}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
