"""The Python binding and the pattern command, checked against the library itself."""
import os
import re
import subprocess
import sys
import tempfile
import unittest

import numpy as np

SOURCE = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "tools", "python"))
import kivbf  # noqa: E402

RATE = 16000
SPEED_OF_SOUND = 331.0 + 0.6 * 20


def plane_wave(frequency, direction_deg, spacing_cm, seconds=1.0, amplitude=0.3):
    # Microphones at x = -d/2, +d/2; 0 degrees is broadside, as KivBf_SetMode counts.
    t = np.arange(int(RATE * seconds)) / RATE
    azimuth = np.radians(direction_deg + 90.0)
    lead = np.array([-0.5, 0.5]) * spacing_cm / 100.0 * np.cos(azimuth) / SPEED_OF_SOUND
    return np.stack([amplitude * np.cos(2 * np.pi * frequency * (t + tau)) for tau in lead], axis=1)


def gain_db(y, x):
    return 10 * np.log10(np.mean(y[len(y) // 4:] ** 2) / np.mean(x[len(y) // 4:, 0] ** 2))


class Binding(unittest.TestCase):
    def test_status_names_match_the_header(self):
        header = {}
        for name in ("AudioBfProcess.h", "kivbf_ext.h"):
            with open(os.path.join(SOURCE, "include", name)) as f:
                header.update(re.findall(r"#define (KIVBF(?:EXT)?_(?:OK|ERR_\w+))\s+(0x[0-9A-Fa-f]+)u", f.read()))
        self.assertEqual({name: int(code, 16) for name, code in header.items()},
                         {name: code for code, name in kivbf.STATUS_NAMES.items()})

    def test_failures_raise_with_the_code_name(self):
        bf = kivbf.Beamformer()
        cases = [(lambda: bf.set_mode(kivbf.MODE_FIXED), "KIVBF_ERR_PREREQUISITE", "KivBf_SetMode"),
                 (lambda: bf.set_config(output_gain=1.5), "KIVBF_ERR_OUTPUT_GAIN", "KivBf_SetConfig"),
                 (lambda: (bf.set_config(output_gain=0.7), bf.set_shape(7)), "KIVBF_ERR_ARRAY_GEOMETRY",
                  "KivBf_SetShape")]
        for call, name, function in cases:
            with self.subTest(name=name), self.assertRaises(kivbf.KivBfError) as caught:
                call()
            self.assertEqual((caught.exception.name, caught.exception.call), (name, function))
            self.assertEqual(caught.exception.code, getattr(kivbf, name))
        with self.assertRaises(kivbf.KivBfError) as caught:
            kivbf.Beamformer(sample_rate=22050)
        self.assertIsNone(caught.exception.code)
        self.assertIn("22050 Hz is not supported (8000, 16000, 32000, 48000 Hz)", str(caught.exception))

    def test_other_rates_are_resampled_both_ways(self):
        # A broadside tone at 44.1 kHz through the fixed beam keeps its level,
        # in the module and in the tool; the output is as long as the input.
        rate = 44100
        tone = 0.3 * np.sin(2 * np.pi * 500 * np.arange(rate) / rate)
        x = np.stack([tone, tone], axis=1)
        self.assertEqual([kivbf.nearest_sample_rate(r) for r in (rate, 22050, 11025, 96000)],
                         [48000, 16000, 8000, 48000])
        y = kivbf.process(x, sample_rate=rate, mode=kivbf.MODE_FIXED)
        self.assertEqual(len(y), len(x))
        self.assertLess(abs(gain_db(y, x)), 0.5)
        import wave
        with tempfile.TemporaryDirectory() as tmp:
            with wave.open(os.path.join(tmp, "in.wav"), "wb") as w:
                w.setnchannels(2), w.setsampwidth(2), w.setframerate(rate)
                w.writeframes(np.round(x * 32767).astype("<i2").tobytes())
            done = subprocess.run([os.environ["KIVBF_TOOL"], "process", "--mode", "1", "in.wav", "out.wav"],
                                  cwd=tmp, capture_output=True, text=True)
            self.assertIn("resampling 44100 Hz to 48000 Hz and back", done.stderr)
            with wave.open(os.path.join(tmp, "out.wav")) as w:
                self.assertEqual((w.getframerate(), w.getnframes()), (rate, len(x)))
                out = np.frombuffer(w.readframes(w.getnframes()), "<i2") / 32768.0
        self.assertLess(abs(gain_db(out, x)), 0.5)

    def test_every_call_is_reachable(self):
        self.assertEqual(kivbf.get_api_version(), (1, 5))
        self.assertGreater(kivbf.get_buffer_size(), 0)
        with kivbf.Beamformer(microphone_distance=6.0) as bf:
            clamped = bf.set_config(temperature=25, noise_threshold_db=-200, diagonal_loading=500)
            self.assertEqual((clamped["noise_threshold_db"], clamped["diagonal_loading"]), (-80, 100))
            self.assertEqual(bf.get_config(), clamped)
            with self.assertRaises(kivbf.KivBfError):  # a pair is only ever placed by set_shape
                bf.set_arbitrary_shape([-3.0, 0.0, 3.0, 0.0])
            bf.set_shape(kivbf.GEOMETRY_LINEAR)
            np.testing.assert_allclose(bf.get_array_position()[:, 0], [-3.0, 3.0], atol=1e-5)
            bf.dynamic_loading([4, 8, 16, 32, 64, 96], [1, 2, 3, 4, 5, 6, 7])
            bf.set_calibration(1)
            bf.set_mode(kivbf.MODE_POSTFILTER, 10.0)
            bf.set_adaptive_intensity(2)
            bf.set_pf_flow(0)
            bf.set_callback_function()
            bf.set_enhanced_mode(True)
            self.assertTrue(bf.get_enhanced_mode())
            with self.assertRaises(kivbf.KivBfError) as caught:
                bf.set_enhanced_mode(2)
            self.assertEqual(caught.exception.name, "KIVBFEXT_ERR_ENHANCED_SWITCH")
            self.assertEqual(bf.run(np.zeros((128, 2), np.int16)).shape, (128,))
            bf.set_mode(kivbf.MODE_FIXED)
            self.assertFalse(bf.get_enhanced_mode())
            bf.reset()
            with self.assertRaises(kivbf.KivBfError):
                bf.run(np.zeros(256, np.int16))

    def test_process_matches_block_runs_and_removes_the_latency(self):
        x = (plane_wave(700.0, 0.0, 5.0, seconds=0.3) * 32768).astype(np.int16)
        x[:, 1] += np.int16(300)  # not a pure broadside wave: the beam shapes it
        raw = kivbf.process(x, mode=kivbf.MODE_ADAPTIVE, compensate_latency=False)
        aligned = kivbf.process(x, mode=kivbf.MODE_ADAPTIVE)
        with kivbf.Beamformer() as bf:
            bf.set_config(temperature=20)
            bf.set_shape(kivbf.GEOMETRY_LINEAR)
            expected = np.concatenate([bf.run(x[i:i + 128]) for i in range(0, len(x) - 127, 128)])
        self.assertEqual((raw.dtype, len(raw), len(aligned)), (np.int16, len(x), len(x)))
        np.testing.assert_array_equal(raw[:len(expected)], expected)
        np.testing.assert_array_equal(aligned[:len(expected) - 128], expected[128:])
        self.assertEqual(kivbf.process(x / 32768.0, mode=kivbf.MODE_POSTFILTER_NO_BAND).dtype, np.float64)


class PatternAgainstPlaneWaves(unittest.TestCase):
    def test_response_table_matches_the_library(self):
        with tempfile.TemporaryDirectory() as out:
            subprocess.run([os.environ["KIVBF_TOOL"], "pattern", "--out", out, "--spacing", "4", "--angle", "90",
                            "--no-plot"], check=True, stdout=subprocess.DEVNULL)
            table = np.loadtxt(os.path.join(out, "pattern_response.csv"), delimiter=",", skiprows=1)
        for k in (8, 40, 100):
            for direction in (-90, -30, 0, 60, 90, 170):
                with self.subTest(bin=k, direction=direction):
                    x = plane_wave(table[k, 0], direction, 4.0, seconds=0.5)
                    y = kivbf.process(x, microphone_distance=4.0, mode=kivbf.MODE_FIXED, angle=90.0)
                    self.assertAlmostEqual(gain_db(y, x), table[k, 1 + direction + 180], delta=0.25)


if __name__ == "__main__":
    unittest.main()
