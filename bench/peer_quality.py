#!/usr/bin/python3
"""The WebRTC peer on the room benchmark: `kivbf eval` with one more
processor, "webrtc", Debian's nonlinear beamformer run through peer_process
(built with the benchmarks, -DKIVBF_BUILD_BENCH=ON) and steered at each
scene's look direction like the library's modes. The peer stays out of every
shipped tool, so this runner lives with the benchmarks.

usage: bench/peer_quality.py BENCH_BUILD_DIR [kivbf eval arguments], e.g.
  bench/peer_quality.py build-bench tools/eval/scenes/hard.json --modes enh,webrtc
The library comes from BENCH_BUILD_DIR/tools/python/libkivbf.so unless
KIVBF_LIBRARY names another."""
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)


def main(argv):
    if len(argv) < 1:
        sys.exit(__doc__)
    build = os.path.abspath(argv[0])
    peer = os.path.join(build, "bench", "peer_process")
    if not os.access(peer, os.X_OK):
        sys.exit(f"peer_quality: no {peer}; build the benchmarks there first")
    os.environ.setdefault("KIVBF_LIBRARY", os.path.join(build, "tools", "python", "libkivbf.so"))
    sys.path[:0] = [os.path.join(TOP, "tools", "eval"), os.path.join(TOP, "tools", "python")]
    import numpy as np
    import processors
    import run_eval

    @processors.processor("webrtc", "WebRTC nonlinear beamformer (the peer)", linear=False)
    def webrtc(pcm, scene):
        run = subprocess.run([peer, str(scene.sample_rate), str(scene.spacing_cm), str(scene.look)],
                             input=np.ascontiguousarray(pcm, dtype="<i2").tobytes(),
                             capture_output=True, check=True)
        return np.frombuffer(run.stdout, dtype="<f4").astype(float), None

    return run_eval.main(argv[1:])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
