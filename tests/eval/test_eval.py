"""The benchmark's simulator and metrics: room decay, array geometry, diffuse
coherence, scene levels, the metrics on cases with known answers, and the
ideal-MVDR bound."""
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "eval"))

import numpy as np  # noqa: E402
import scipy.signal  # noqa: E402

import ideal  # noqa: E402
import metrics  # noqa: E402
import rooms  # noqa: E402
import scenes  # noqa: E402

RATE = 16000
C = rooms.speed_of_sound(20)


class Simulator(unittest.TestCase):
    def test_rt60_from_impulse_responses_within_10_percent(self):
        for size, rt60 in (((4.0, 3.5, 2.7), 0.2), ((6.0, 5.0, 3.0), 0.4), ((9.0, 7.0, 3.2), 0.7)):
            mics = rooms.microphone_positions((size[0] / 2 + 0.3, size[1] * 0.4, 1.2), 0.05)
            source = rooms.source_position(mics.mean(axis=0), 30.0, 1.5, 1.6)
            for response in rooms.impulse_responses(size, rt60, source, mics, RATE, C):
                measured = rooms.schroeder_rt60(response, RATE)
                self.assertLess(abs(measured / rt60 - 1.0), 0.10, (size, rt60, measured))

    def test_plane_wave_delay_between_microphones(self):
        # A source 40 m away in a large anechoic room: nearly a plane wave.
        size = (100.0, 100.0, 10.0)
        mics = rooms.microphone_positions((50.0, 20.0, 2.0), 0.08)
        for azimuth in (-60.0, 0.0, 25.0, 80.0):
            source = rooms.source_position(mics.mean(axis=0), azimuth, 40.0, 2.0)
            h = rooms.impulse_responses(size, 0.0, source, mics, RATE, C)
            spectra = np.fft.rfft(h, 4096)
            f = np.fft.rfftfreq(4096, 1.0 / RATE)
            band = (f > 200) & (f < 4000)
            phase = np.unwrap(np.angle(spectra[1] * np.conj(spectra[0]))[band])
            measured = -np.polyfit(2 * np.pi * f[band], phase, 1)[0]
            expected = rooms.plane_wave_delay(0.08, azimuth, C)
            self.assertAlmostEqual(measured * RATE, expected * RATE, delta=0.02, msg=azimuth)

    def test_diffuse_noise_has_sinc_coherence(self):
        rng = np.random.default_rng(3)
        noise = rooms.diffuse_noise(rng.standard_normal((2, 20 * RATE)), 0.1, RATE, C)
        f, coherence = scipy.signal.coherence(noise[0], noise[1], fs=RATE, nperseg=512)
        expected = np.sinc(2.0 * f * 0.1 / C) ** 2
        self.assertLess(np.max(np.abs(coherence - expected)), 0.06)

    def test_scene_levels_follow_its_description(self):
        scene = scenes._merge(scenes.SCENE_DEFAULTS, {
            "name": "levels", "seed": 5, "seconds": 2.0,
            "room": {"size": [5.0, 4.0, 3.0], "rt60": 0.2},
            "talker": {"voice": "en-us", "azimuth": 20.0},
            "noise": [{"signal": "tones", "azimuth": -40.0}, {"signal": "pink", "diffuse": True}],
            "snr_db": 3.0, "talker_dbfs": -30.0})
        rendered = scenes.render(scene)
        self.assertAlmostEqual(10 * np.log10(np.mean(rendered.talker[:, 0] ** 2)), -30.0, places=6)
        self.assertAlmostEqual(rendered.input_snr_db, 3.0, delta=0.05)   # sensor noise 50 dB down
        again = scenes.render(scene)
        np.testing.assert_array_equal(rendered.mixture, again.mixture)


def _scene(seed=1, frames=4 * RATE, snr_db=5.0):
    """A coloured 'talker' at two microphones, and white noise at snr_db."""
    rng = np.random.default_rng(seed)
    source = scipy.signal.lfilter([1.0], [1.0, -0.9], rng.standard_normal(frames))
    talker = np.stack([source, np.roll(source, 2)], axis=1)
    noise = rng.standard_normal((frames, 2))
    noise *= np.sqrt(np.mean(talker[:, 0] ** 2) / np.mean(noise[:, 0] ** 2)) * 10 ** (-snr_db / 20)
    return talker, noise


class Metrics(unittest.TestCase):
    def test_pure_gain_changes_nothing(self):
        talker, noise = _scene()
        mixture = talker[:, 0] + noise[:, 0]
        for parts in ((0.3 * talker[:, 0], 0.3 * noise[:, 0]), None):
            r = metrics.evaluate(0.3 * mixture, talker, noise, RATE, parts)
            self.assertEqual(r["lag"], 0)
            self.assertAlmostEqual(r["si_sdr_gain"], 0.0, places=9)
            self.assertAlmostEqual(r["snr_in"], 5.0, places=6)
            self.assertAlmostEqual(r["snr_gain"], 0.0, delta=1e-9 if parts else 0.1)
            self.assertLess(r["lsd"], 1e-6 if parts else 0.6)

    def test_known_output_snr(self):
        talker, noise = _scene(snr_db=0.0)
        residual = noise[:, 1] * 10 ** (-10 / 20)        # independent of the input noise
        out = 0.5 * (talker[:, 0] + residual)
        for parts in ((0.5 * talker[:, 0], 0.5 * residual), None):
            r = metrics.evaluate(out, talker, noise, RATE, parts)
            self.assertAlmostEqual(r["si_sdr_out"], 10.0, delta=0.1)
            self.assertAlmostEqual(r["snr_gain"], 10.0, delta=0.1)

    def test_one_block_delay_is_found_and_removed(self):
        talker, noise = _scene()
        mixture = talker[:, 0] + noise[:, 0]
        late = np.concatenate([np.zeros(128), mixture[:-128]])
        r = metrics.evaluate(late, talker, noise, RATE)
        self.assertEqual(r["lag"], 128)
        self.assertAlmostEqual(r["si_sdr_gain"], 0.0, delta=0.05)
        self.assertAlmostEqual(r["snr_gain"], 0.0, delta=0.1)

    def test_ideal_bound_cancels_a_point_noise_and_passes_the_talker(self):
        talker, _ = _scene(snr_db=0.0)
        rng = np.random.default_rng(7)
        source = rng.standard_normal(len(talker)) * np.std(talker[:, 0])
        noise = np.stack([source, np.roll(source, -1)], axis=1)   # from the other side
        parts = (ideal.ideal_mvdr(talker, talker, noise), ideal.ideal_mvdr(noise, talker, noise))
        r = metrics.evaluate(ideal.ideal_mvdr(talker + noise, talker, noise), talker, noise, RATE, parts)
        self.assertEqual(r["lag"], 0)
        self.assertGreater(r["snr_gain"], 20.0)
        self.assertGreater(r["si_sdr_gain"], 15.0)


if __name__ == "__main__":
    unittest.main()
