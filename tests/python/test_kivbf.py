"""The Python binding, the pattern command and the plot scripts, checked
against the library itself: status names against the public header, whole-
signal processing against block-by-block runs, and the pattern's analytic
response against plane waves sent through KivBf_Run."""
import os
import re
import subprocess
import sys
import tempfile
import unittest
import wave

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "tools", "python"))
import kivbf  # noqa: E402

RATE = 16000
SPEED_OF_SOUND = 331.0 + 0.6 * 20


def plane_wave(frequency, direction_deg, spacing_cm, seconds=1.0, amplitude=0.3):
    """Two-microphone linear array at x = -d/2, +d/2; 0 degrees is broadside
    (as KivBf_SetMode counts), so the wave's azimuth from +x is direction + 90."""
    t = np.arange(int(RATE * seconds)) / RATE
    azimuth = np.radians(direction_deg + 90.0)
    positions = np.array([-0.5, 0.5]) * spacing_cm / 100.0
    lead = positions * np.cos(azimuth) / SPEED_OF_SOUND
    return np.stack([amplitude * np.cos(2 * np.pi * frequency * (t + tau)) for tau in lead], axis=1)


def gain_db(y, x):
    settled = slice(len(y) // 4, None)
    return 10 * np.log10(np.mean(y[settled] ** 2) / np.mean(x[settled, 0] ** 2))


class StatusAndCalls(unittest.TestCase):
    def test_status_names_match_the_header(self):
        with open(os.path.join(SOURCE, "include", "AudioBfProcess.h")) as f:
            header = dict(re.findall(r"#define (KIVBF_(?:OK|ERR_\w+))\s+(0x[0-9A-Fa-f]+)u", f.read()))
        self.assertEqual({name: int(code, 16) for name, code in header.items()},
                         {name: code for code, name in kivbf.STATUS_NAMES.items()})

    def test_failures_raise_with_the_code_name(self):
        bf = kivbf.Beamformer()
        cases = [
            (lambda: bf.set_mode(kivbf.MODE_FIXED), "KIVBF_ERR_PREREQUISITE", "KivBf_SetMode"),
            (lambda: bf.set_config(output_gain=1.5), "KIVBF_ERR_OUTPUT_GAIN", "KivBf_SetConfig"),
            (lambda: bf.get_array_position(), "KIVBF_ERR_PREREQUISITE", "KivBf_GetArrayPosition"),
            (lambda: bf.set_shape(7), "KIVBF_ERR_PREREQUISITE", "KivBf_SetShape"),
        ]
        for call, name, function in cases:
            with self.subTest(name=name, function=function):
                with self.assertRaises(kivbf.KivBfError) as caught:
                    call()
                self.assertEqual((caught.exception.name, caught.exception.call), (name, function))
                self.assertEqual(caught.exception.code, getattr(kivbf, name))
        bf.set_config(output_gain=0.7)
        with self.assertRaises(kivbf.KivBfError) as caught:
            bf.set_shape(7)
        self.assertEqual(caught.exception.name, "KIVBF_ERR_ARRAY_GEOMETRY")
        with self.assertRaises(kivbf.KivBfError) as caught:
            kivbf.Beamformer(sample_rate=22050)
        self.assertIsNone(caught.exception.code)

    def test_calls_round_trip(self):
        self.assertEqual(kivbf.get_api_version(), (1, 5))
        with kivbf.Beamformer(microphone_distance=6.0) as bf:
            clamped = bf.set_config(temperature=25, noise_threshold_db=-200, diagonal_loading=500)
            self.assertEqual((clamped["noise_threshold_db"], clamped["diagonal_loading"]), (-80, 100))
            self.assertEqual(bf.get_config(), clamped)
            bf.set_shape(kivbf.GEOMETRY_LINEAR)
            np.testing.assert_allclose(bf.get_array_position()[:, 0], [-3.0, 3.0], atol=1e-5)
            bf.dynamic_loading([4, 8, 16, 32, 64, 96], [1, 2, 3, 4, 5, 6, 7])
            bf.set_calibration(1)
            bf.set_mode(kivbf.MODE_POSTFILTER, 10.0)
            bf.set_adaptive_intensity(2)
            bf.set_pf_flow(0)
            bf.set_callback_function()
            self.assertEqual(bf.run(np.zeros((128, 2), np.int16)).shape, (128,))
            with self.assertRaises(ValueError):
                bf.run(np.zeros(100, np.int16))
            bf.reset()
            with self.assertRaises(kivbf.KivBfError):
                bf.run(np.zeros(256, np.int16))


class WholeSignals(unittest.TestCase):
    def test_process_matches_block_runs_and_removes_the_latency(self):
        x = (plane_wave(700.0, 0.0, 5.0, seconds=0.3) * 32768).astype(np.int16)
        x[:, 1] += np.int16(300)  # not a pure broadside wave: the beam shapes it
        raw = kivbf.process(x, mode=kivbf.MODE_ADAPTIVE, compensate_latency=False)
        aligned = kivbf.process(x, mode=kivbf.MODE_ADAPTIVE)
        with kivbf.Beamformer() as bf:
            bf.set_config(temperature=20)
            bf.set_shape(kivbf.GEOMETRY_LINEAR)
            blocks = [bf.run(x[i:i + 128]) for i in range(0, len(x) - 127, 128)]
        expected = np.concatenate(blocks)
        self.assertEqual((raw.dtype, len(raw), len(aligned)), (np.int16, len(x), len(x)))
        np.testing.assert_array_equal(raw[:len(expected)], expected)
        np.testing.assert_array_equal(aligned[:len(expected) - 128], expected[128:])

    def test_floats_in_floats_out_and_mode_4_runs(self):
        x = plane_wave(1000.0, 0.0, 5.0, seconds=0.2)
        y = kivbf.process(x, mode=kivbf.MODE_FIXED)
        self.assertEqual(y.dtype, np.float64)
        self.assertAlmostEqual(gain_db(y, x), 0.0, delta=0.1)
        self.assertEqual(len(kivbf.process(x, mode=kivbf.MODE_POSTFILTER_NO_BAND)), len(x))


class PatternAgainstPlaneWaves(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.endfire = os.path.join(cls.tmp.name, "endfire")
        cls.broadside = os.path.join(cls.tmp.name, "broadside")
        tool = os.environ["KIVBF_TOOL"]
        for out, extra in ((cls.endfire, ["--angle", "90"]), (cls.broadside, ["--no-plot"])):
            subprocess.run([tool, "pattern", "--out", out, "--spacing", "4", *extra], check=True,
                           stdout=subprocess.DEVNULL)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_response_table_matches_the_library(self):
        table = np.loadtxt(os.path.join(self.endfire, "pattern_response.csv"), delimiter=",", skiprows=1)
        for k in (8, 40, 100):
            for direction in (-90, -30, 0, 60, 90, 170):
                with self.subTest(bin=k, direction=direction):
                    x = plane_wave(table[k, 0], direction, 4.0, seconds=0.5)
                    y = kivbf.process(x, microphone_distance=4.0, mode=kivbf.MODE_FIXED, angle=90.0)
                    self.assertAlmostEqual(gain_db(y, x), table[k, 1 + direction + 180], delta=0.25)

    def test_metrics_have_the_known_limits(self):
        # Broadside, two microphones: equal weights, so the white-noise gain
        # is 10 log10(2) everywhere. Endfire at low frequency approaches the
        # two-element superdirective limit of 6 dB at a white-noise cost.
        broadside = np.loadtxt(os.path.join(self.broadside, "pattern_metrics.csv"), delimiter=",", skiprows=1)
        np.testing.assert_allclose(broadside[:, 2], 10 * np.log10(2), atol=1e-3)
        endfire = np.loadtxt(os.path.join(self.endfire, "pattern_metrics.csv"), delimiter=",", skiprows=1)
        low = (endfire[:, 0] > 200) & (endfire[:, 0] < 1000)
        self.assertTrue(np.all((endfire[low, 1] > 5.0) & (endfire[low, 1] <= 6.03)))
        self.assertTrue(np.all(endfire[low, 2] < 0.0))
        self.assertTrue(os.path.getsize(os.path.join(self.endfire, "pattern.png")) > 10000)
        self.assertFalse(os.path.exists(os.path.join(self.broadside, "pattern.png")))

    def test_spectrogram_picture(self):
        directory = os.path.join(self.tmp.name, "demo")
        os.makedirs(directory)
        noise = (np.random.default_rng(1).standard_normal((8000, 2)) * 3000).astype("<i2")
        for name, channels in (("scene_mix.wav", 2), ("mode1_output.wav", 1)):
            with wave.open(os.path.join(directory, name), "wb") as f:
                f.setnchannels(channels)
                f.setsampwidth(2)
                f.setframerate(RATE)
                f.writeframes(noise[:, :channels].tobytes())
        subprocess.run([sys.executable, os.path.join(SOURCE, "tools", "python", "plot_sonograms.py"),
                        directory], check=True)
        with open(os.path.join(directory, "spectrograms.png"), "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")


if __name__ == "__main__":
    unittest.main()
