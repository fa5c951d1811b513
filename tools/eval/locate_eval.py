#!/usr/bin/python3
"""kivbf eval --locate: the direction finder over simulated rooms.

Every scene of the file (default tools/eval/scenes/locate.json) names the
check it belongs to ("check"); a scene with "move_to" and "move_at" has its
talker jump from its azimuth to move_to at move_at seconds. The finder runs
with nothing but the two microphones' PCM; its estimate after each block is
compared with the truth over the talker's active blocks: those whose 100 ms
around them hold the talker's image at microphone 0 within 20 dB of its
loudest 100 ms. Prints one line per scene and the targets with met/not met."""
import argparse
import os
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "python"))

import numpy as np  # noqa: E402

import kivbf  # noqa: E402
import scenes  # noqa: E402

DEFAULT_SCENES = os.path.join(HERE, "scenes", "locate.json")
BLOCK = kivbf.POINT_NUMBER
ACTIVE_DB = 20.0
WINDOW_HALF_WIDTH = 30.0       # search window of the two-talker check, around the talker
NEAR_DEG = 10.0


def active_blocks(talker_mic0, rate):
    """Per block: is the talker's energy over the 100 ms around it within
    20 dB of the loudest 100 ms?"""
    blocks = len(talker_mic0) // BLOCK
    energy = np.convolve(talker_mic0 ** 2, np.ones(int(0.1 * rate)), mode="same")
    centres = np.arange(blocks) * BLOCK + BLOCK // 2
    block_energy = energy[centres]
    return block_energy >= energy.max() * 10.0 ** (-ACTIVE_DB / 10.0)


def render(scene):
    """The rendered scene and the true direction per sample."""
    if "move_to" not in scene:
        rendered = scenes.render(scene)
        return rendered, np.full(len(rendered.talker), float(scene["talker"]["azimuth"]))
    # The same seed gives the same sentences and noise: splice the talker's
    # image from its first place with that from the second.
    first = scenes.render(scene)
    second = scenes.render({**scene, "talker": {**scene["talker"], "azimuth": scene["move_to"]}})
    at = int(scene["move_at"] * first.sample_rate)
    first.talker[at:] = second.talker[at:]
    truth = np.where(np.arange(len(first.talker)) < at, float(scene["talker"]["azimuth"]),
                     float(scene["move_to"]))
    return first, truth


def run_finder(rendered, window=None):
    pcm = np.clip(np.round(rendered.mixture * 32768.0), -32768, 32767).astype(np.int16)
    return kivbf.locate(pcm, rendered.sample_rate, rendered.spacing_cm, search_window=window,
                        temperature=rendered.library["temperature"])


def settle_seconds(estimate, truth_after, active, move_block, rate):
    """Seconds from the talker's first active block after the move until every
    later estimate stays within 10 degrees."""
    speaking = move_block + int(np.argmax(active[move_block:]))
    off = np.nonzero(np.abs(estimate[speaking:] - truth_after) > NEAR_DEG)[0]
    last_off = off[-1] + 1 if len(off) else 0
    return last_off * BLOCK / rate


def evaluate(scene):
    rendered, truth = render(scene)
    rate = rendered.sample_rate
    estimate, confidence = run_finder(rendered)
    blocks = len(estimate)
    block_truth = truth[np.arange(blocks) * BLOCK + BLOCK // 2]
    active = active_blocks(rendered.talker[:, 0], rate)[:blocks]
    error = np.abs(estimate - block_truth)[active]
    result = {"name": scene["name"], "check": scene.get("check"), "median": float(np.median(error)),
              "near": float(np.mean(error <= NEAR_DEG)), "confidence": float(np.median(confidence[active])),
              "description": rendered.description}
    if result["check"] == "two talkers":
        azimuth = scene["talker"]["azimuth"]
        windowed, _ = run_finder(rendered, (azimuth, WINDOW_HALF_WIDTH))
        low, high = max(azimuth - WINDOW_HALF_WIDTH, -90.0), min(azimuth + WINDOW_HALF_WIDTH, 90.0)
        result["outside"] = int(np.sum((windowed < low - 1e-3) | (windowed > high + 1e-3)))
    if "move_to" in scene:
        move_block = int(scene["move_at"] * rate) // BLOCK
        result["settle"] = settle_seconds(estimate, float(scene["move_to"]),
                                          active_blocks(rendered.talker[:, 0], rate)[:blocks], move_block, rate)
    return result


# (check, what is measured, the figure from the scene results, target test, target text)
TARGETS = (
    ("anechoic", "median error", lambda r: max(x["median"] for x in r), lambda v: v <= 3, "<= 3 deg"),
    ("rt0.3", "median error", lambda r: max(x["median"] for x in r), lambda v: v <= 8, "<= 8 deg"),
    ("rt0.6", "median error", lambda r: max(x["median"] for x in r), lambda v: v <= 12, "<= 12 deg"),
    ("two talkers", "blocks within 10 deg of the stronger", lambda r: min(x["near"] for x in r),
     lambda v: v >= 0.9, ">= 90 %"),
    ("two talkers", "blocks outside a window excluding the other", lambda r: sum(x["outside"] for x in r),
     lambda v: v == 0, "0"),
    ("point noise", "median error (white/pink 5 dB above)", lambda r: max(x["median"] for x in r),
     lambda v: v <= 10, "<= 10 deg"),
    ("moving", "settled within 10 deg after a 40 deg move", lambda r: max(x["settle"] for x in r),
     lambda v: v <= 0.5, "<= 0.5 s"),
)


def main(argv=None):
    parser = argparse.ArgumentParser(prog="kivbf eval --locate",
                                     description="The direction finder over simulated rooms, against its targets.")
    parser.add_argument("scenes", nargs="?", default=DEFAULT_SCENES)
    parser.add_argument("--only", help="comma-separated scene names to run")
    args = parser.parse_args(argv)
    scene_list = scenes.load(args.scenes)
    if args.only:
        wanted = set(args.only.split(","))
        scene_list = [s for s in scene_list if s["name"] in wanted]
    if "DML_PATH" not in os.environ:
        level_file = os.path.join(tempfile.mkdtemp(prefix="kivbf-eval-"), "level.json")
        with open(level_file, "w") as f:
            f.write('{"debug_level": 1}')
        os.environ["DML_PATH"] = level_file

    started = time.time()
    results = []
    print(f"{'scene':<24}{'median err':>11}{'<=10 deg':>10}{'confidence':>11}  extra")
    for scene in scene_list:
        r = evaluate(scene)
        results.append(r)
        extra = ""
        if "outside" in r:
            extra = f"windowed: {r['outside']} blocks outside"
        if "settle" in r:
            extra = f"settled after {r['settle']:.2f} s"
        print(f"{r['name']:<24}{r['median']:>10.1f}°{100 * r['near']:>9.0f}%{r['confidence']:>11.2f}  {extra}",
              flush=True)

    print("\ntarget (worst scene of each check)")
    failed = 0
    for check, what, figure, test, text in TARGETS:
        chosen = [r for r in results if r["check"] == check]
        if not chosen:
            continue
        value = figure(chosen)
        met = test(value)
        failed += not met
        shown = f"{100 * value:.0f} %" if "blocks within" in what else (
            f"{value:.2f} s" if "settled" in what else f"{value:g}" if "outside" in what else f"{value:.1f} deg")
        print(f"  {check:<12} {what:<48} {shown:>9}  target {text:<9} {'met' if met else 'NOT MET'}")
    print(f"\n{len(results)} scenes in {time.time() - started:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
