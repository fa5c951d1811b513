#!/usr/bin/python3
"""How far a change of arithmetic moved the golden outputs.

    KIVBF_GOLDEN_DUMP=before build-old/tests/test_golden
    KIVBF_GOLDEN_DUMP=after  build/native/tests/test_golden
    tests/compare_outputs.py before after

Per case: error energy relative to the output (dB), the largest difference
in LSB, how many samples differ, and the last block that differs (a flipped
threshold decision shows as a burst that ends there). A case passes the
project's bound when its error is <= -60 dB or no sample is more than 2 LSB
off.
"""
import pathlib
import sys

import numpy as np

BLOCK = 128


def main(before_dir, after_dir):
    worst_ok = True
    print(f"{'case':28} {'error dB':>9} {'max LSB':>8} {'differ':>7} {'last block':>10}  bound")
    for before_path in sorted(pathlib.Path(before_dir).glob("*.s16")):
        before = np.fromfile(before_path, dtype=np.int16).astype(np.int64)
        after = np.fromfile(pathlib.Path(after_dir) / before_path.name, dtype=np.int16).astype(np.int64)
        diff = after - before
        differing = np.flatnonzero(diff)
        energy = float(np.sum(before * before))
        error_db = 10 * np.log10(np.sum(diff * diff) / energy) if differing.size and energy else -np.inf
        max_lsb = int(np.max(np.abs(diff))) if differing.size else 0
        last = int(differing[-1] // BLOCK) if differing.size else -1
        ok = error_db <= -60 or max_lsb <= 2
        worst_ok &= ok
        print(f"{before_path.stem:28} {error_db:9.1f} {max_lsb:8d} {differing.size:7d} {last:10d}  "
              f"{'ok' if ok else 'EXCEEDED'}")
    return 0 if worst_ok else 1


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
