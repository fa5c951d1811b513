#!/usr/bin/python3
"""kivbf eval: simulates every scene of a scene file, runs each processor
(the library's modes and a delay-and-sum reference) over it and prints the
metrics per scene and their medians. `kivbf eval --help` for the options."""
import argparse
import dataclasses
import os
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "python"))   # kivbf.py beside us, in tree or installed

import numpy as np  # noqa: E402

import metrics  # noqa: E402
import processors  # noqa: E402
import scenes  # noqa: E402

DEFAULT_SCENES = os.path.join(HERE, "scenes", "default.json")
DEFAULT_MODES = ("0", "1", "2", "3", "das")
# (result key, column heading, format)
TABLES = (
    ("si_sdr_gain", "SI-SDR improvement, dB", "{:+.2f}"),
    ("snr_gain", "SNR improvement, dB", "{:+.2f}"),
    ("lsd", "log-spectral distance of the talker part, dB", "{:.2f}"),
)


def evaluate_scene(rendered, chosen):
    """{processor key: metrics} for one rendered scene."""
    def pcm(x):
        return np.clip(np.round(x * 32768.0), -32768, 32767).astype(np.int16)

    results = {}
    for p in chosen:
        output, seconds = p.run(pcm(rendered.mixture), rendered)
        parts = None
        if p.linear:
            parts = (p.run(pcm(rendered.talker), rendered)[0], p.run(pcm(rendered.noise), rendered)[0])
        result = metrics.evaluate(output, rendered.talker, rendered.noise, rendered.sample_rate, parts)
        result["us_per_block"] = None if seconds is None else seconds * 1e6
        result["output"] = output
        results[p.key] = result
    return results


def print_table(title, names, chosen, rows, fmt):
    print(f"\n{title}")
    width = max(len(n) for n in names + ["median"])
    print(" " * width + "".join(f"{p.key:>9}" for p in chosen))
    for name, row in zip(names, rows):
        print(f"{name:<{width}}" + "".join(f"{fmt.format(v):>9}" for v in row))
    print(f"{'median':<{width}}" + "".join(f"{fmt.format(v):>9}" for v in np.median(rows, axis=0)))


def write_csv(path, names, chosen, all_results):
    with open(path, "w") as f:
        f.write("scene,processor,lag,si_sdr_in,si_sdr_gain,snr_in,snr_gain,lsd,us_per_block\n")
        for name, results in zip(names, all_results):
            for p in chosen:
                r = results[p.key]
                cost = "" if r["us_per_block"] is None else f"{r['us_per_block']:.2f}"
                f.write(f"{name},{p.key},{r['lag']},{r['si_sdr_in']:.3f},{r['si_sdr_gain']:.3f},"
                        f"{r['snr_in']:.3f},{r['snr_gain']:.3f},{r['lsd']:.3f},{cost}\n")


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="kivbf eval", description="Simulates every scene of a scene file, runs each processor over it "
        "and prints SI-SDR and SNR improvement, log-spectral distance and cost per block.")
    parser.add_argument("scenes", nargs="?", default=DEFAULT_SCENES,
                        help="scene file (JSON); default: the shipped default set")
    parser.add_argument("--modes", default=",".join(DEFAULT_MODES),
                        help=f"comma-separated processors, of {', '.join(processors.PROCESSORS)} "
                             f"(default: {','.join(DEFAULT_MODES)})")
    parser.add_argument("--only", help="comma-separated scene names to run")
    parser.add_argument("--look-offset", type=float, default=0.0, metavar="DEG",
                        help="steer every processor this many degrees beside each scene's look direction")
    parser.add_argument("--rate", type=int, choices=scenes.SAMPLE_RATES, metavar="HZ",
                        help="render every scene at this sample rate instead of its own")
    parser.add_argument("--plot", action="store_true", help="draw bars and spectrograms into --out")
    parser.add_argument("--out", default="kivbf-eval", help="directory for results.csv and plots")
    args = parser.parse_args(argv)

    keys = [k.strip() for k in args.modes.split(",") if k.strip()]
    unknown = [k for k in keys if k not in processors.PROCESSORS]
    if unknown:
        parser.error(f"unknown processors {unknown}; known: {', '.join(processors.PROCESSORS)}")
    chosen = [processors.PROCESSORS[k] for k in keys]
    scene_list = scenes.load(args.scenes)
    if args.only:
        wanted = set(args.only.split(","))
        scene_list = [s for s in scene_list if s["name"] in wanted]
    if args.rate:
        scene_list = [{**s, "sample_rate": args.rate} for s in scene_list]

    if "DML_PATH" not in os.environ:      # only the library's errors, not its start-up notes
        level_file = os.path.join(tempfile.mkdtemp(prefix="kivbf-eval-"), "level.json")
        with open(level_file, "w") as f:
            f.write('{"debug_level": 1}')
        os.environ["DML_PATH"] = level_file
    started = time.time()
    names, all_results, rendered_scenes = [], [], []
    for scene in scene_list:
        rendered = scenes.render(scene)
        if args.look_offset:
            rendered = dataclasses.replace(rendered, look=rendered.look + args.look_offset)
        print(f"{rendered.name}: {rendered.description}", flush=True)
        names.append(rendered.name)
        all_results.append(evaluate_scene(rendered, chosen))
        if args.plot:
            rendered_scenes.append(rendered)

    print("\nprocessors: " + "; ".join(f"{p.key} = {p.title}" for p in chosen))
    for key, title, fmt in TABLES:
        rows = [[results[p.key][key] for p in chosen] for results in all_results]
        print_table(title, names, chosen, rows, fmt)
    costs = [np.median([r[p.key]["us_per_block"] for r in all_results])
             if all_results[0][p.key]["us_per_block"] is not None else float("nan") for p in chosen]
    print("\ncost per block (CPU time of KivBf_Run, median), us: " +
          "  ".join(f"{p.key} {c:.1f}" for p, c in zip(chosen, costs) if np.isfinite(c)))

    os.makedirs(args.out, exist_ok=True)
    write_csv(os.path.join(args.out, "results.csv"), names, chosen, all_results)
    print(f"\n{len(names)} scenes in {time.time() - started:.0f} s; table: {args.out}/results.csv")
    if args.plot:
        import plots
        for picture in plots.draw(args.out, names, chosen, all_results, rendered_scenes, TABLES):
            print(f"picture: {picture}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
