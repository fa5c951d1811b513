#!/usr/bin/python3
"""Shows that the native suite catches typical slips. Run by hand from the top
of the tree (not in CI): tests/mutation_check.py [build dir, default
build/mutation]. Applies each slip alone (or those whose description contains
one of the further arguments), rebuilds the native flavour without
sanitizers, runs ctest and reports the slips that no test caught; every file
is restored afterwards. Exit status 1 if any slip went uncaught."""
import pathlib, subprocess, sys, time

TOP = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else TOP / "build/mutation")
WANTED = sys.argv[2:]

# (what slipped, file, text, replacement): the text occurs exactly once.
SLIPS = [
    ("sign flipped in a complex product", "Common/src/vector_lanes.h",
     "return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};",
     "return {a.re * b.re - a.im * b.im, a.re * b.im - a.im * b.re};"),
    ("off-by-one band range", "src/Beamformer_core_bandweight.cpp",
     "for (int32_t k = first; k < first + count; ++k) {", "for (int32_t k = first; k <= first + count; ++k) {"),
    ("refinement step dropped from the reciprocal", "Common/src/vector_lanes.h",
     "ReciprocalStep(b, ReciprocalStep(b, estimate))", "ReciprocalStep(b, estimate)"),
    ("root correction dropped", "Common/src/vector_lanes.h",
     "return vaddq_f32(root, vmulq_f32(residual, half_inv_root));",
     "(void)residual; (void)half_inv_root; return root;"),
    ("swapped channel in the noise snapshot", "src/Beamformer_core_mvdr.cpp",
     "Snapshot<Float4>(s, 1, k, calibrated)", "Snapshot<Float4>(s, 0, k, calibrated)"),
    ("swapped channel in the canceller's reference", "src/Beamformer_core_beamsum.cpp",
     "LoadComplex<T>(s.mic_spectrum[1], k) + blocked", "LoadComplex<T>(s.mic_spectrum[0], k) + blocked"),
    ("noise smoothing constant changed", "src/Beamformer_core_noise.cpp",
     "kNoiseSmoothing = 0.2f;", "kNoiseSmoothing = 0.21f;"),
    ("level gate comparison inverted", "src/AudioBfProcess_run.cpp",
     "return s.input_rms * kPcmScale < static_cast<float>", "return s.input_rms * kPcmScale > static_cast<float>"),
    ("coherence threshold moved", "src/Beamformer_core_direction.cpp",
     "kCoherentLevel = 0.3;", "kCoherentLevel = 0.32;"),
    ("level table entry off by one", "src/Beamformer_core_init.cpp", "{-30, 1036}", "{-30, 1037}"),
    ("edge renormalisation entry off by one", "src/Beamformer_core_postfilter.cpp",
     "0.8578f, 0.9097f", "0.8579f, 0.9097f"),
    ("history one block short", "src/Beamformer_core_direction.cpp",
     "for (int32_t b = 1; b < kHistoryBlocks; ++b) {", "for (int32_t b = 2; b < kHistoryBlocks; ++b) {"),
    ("dry and wet shares swapped", "src/Beamformer_core_postfilter.cpp",
     "Scale(e, dry) + Scale(filtered, wet)", "Scale(e, wet) + Scale(filtered, dry)"),
    ("diagonal loading left off one entry", "src/Beamformer_core_mvdr.cpp",
     "phi.re.a11 + loading}", "phi.re.a11}"),
    ("exact quotient taken as an estimate", "src/Beamformer_core_noise.cpp",
     "ExactQuotient(speech, noise)", "Quotient(speech, noise)"),
    ("wrong band weight on the low bins", "src/Beamformer_core_bandweight.cpp",
     "vec_scale(s.direction_weight, s.band_weight_low,", "vec_scale(s.direction_weight, s.band_weight_mid,"),
    ("finder's leakage test dropped", "src/Beamformer_core_locate.cpp",
     "kHighBandLevel = 0.01f;", "kHighBandLevel = 0.0f;"),
    ("dryness held without evidence", "src/Beamformer_core_enhanced_beam.cpp",
     "e.dryness *= e.dryness_relax;", "e.dryness *= 1.0f;"),
]


def run(*command):
    return subprocess.run(command, cwd=TOP, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode


def main():
    start = time.monotonic()
    if run("cmake", "-S", ".", "-B", str(BUILD), "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DKIVBF_SANITIZE=OFF") != 0 \
            or run("cmake", "--build", str(BUILD), "-j2") != 0 or run("ctest", "--test-dir", str(BUILD), "-j2") != 0:
        sys.exit("the unmodified tree does not build or pass")
    missed = []
    slips = [slip for slip in SLIPS if not WANTED or any(word in slip[0] for word in WANTED)]
    for what, name, text, replacement in slips:
        path = TOP / name
        original = path.read_text()
        assert original.count(text) == 1, f"{name}: the text of '{what}' is not there exactly once"
        try:
            path.write_text(original.replace(text, replacement))
            if run("cmake", "--build", str(BUILD), "-j2") != 0:
                result = "does not build"
                missed.append(what)
            elif run("ctest", "--test-dir", str(BUILD), "-j2", "--stop-on-failure") != 0:
                result = "caught"
            else:
                result = "NOT CAUGHT"
                missed.append(what)
        finally:
            path.write_text(original)
        print(f"{result:>14}: {what} ({name})", flush=True)
    run("cmake", "--build", str(BUILD), "-j2")  # back to the tree as it is
    print(f"{len(slips) - len(missed)} of {len(slips)} slips caught in {time.monotonic() - start:.0f} s")
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
