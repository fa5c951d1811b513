"""The plugins in real hosts: applyplugin and sox (LADSPA), lv2file (LV2),
gst-launch-1.0 (GStreamer). Each output must equal `kivbf process` on the same
file with the same settings, 127 frames later (the plugin's own buffering):
exactly on int16 paths, within 1 LSB where the host goes through float.
Every host buffer size gives the same output; 44.1 kHz is refused cleanly.

Run by ctest with KIVBF_TOOL and KIVBF_PLUGIN_DIR (the build's plugins/)."""
import os
import shutil
import subprocess
import tempfile
import unittest
import wave

import numpy as np

TOOL = os.environ["KIVBF_TOOL"]
PLUGINS = os.environ["KIVBF_PLUGIN_DIR"]
SHIFT = 127  # kPluginLatencyFrames minus the library's block
URI = "urn:kivbf:beamformer"
# One non-default value per control, so that a mixed-up port shows.
SETTINGS = {"mode": 3, "angle": 30, "spacing": 4, "shape": 0, "output_gain": 0.7, "vad": 1,
            "intensity": 2, "auto_steer": 1, "window_centre": 20, "window_half_width": 60}
TOOL_ARGS = ["--mode", "3", "--angle", "30", "--spacing", "4", "--shape", "linear",
             "--output-gain", "0.7", "--vad", "1", "--intensity", "2", "--auto-steer", "--window", "20,60"]
LADSPA_ARGS = [str(SETTINGS[k]) for k in SETTINGS]
ENV = dict(os.environ, LADSPA_PATH=f"{PLUGINS}/ladspa", LV2_PATH=f"{PLUGINS}/lv2",
           GST_PLUGIN_PATH=f"{PLUGINS}/gstreamer")


def have(*programs):
    return all(shutil.which(p) for p in programs)


def read(path):
    with wave.open(path) as w:
        data = np.frombuffer(w.readframes(w.getnframes()), "<i2").astype(np.int32)
        return data.reshape(-1, w.getnchannels())[:, 0]


def run(*command):
    return subprocess.run(command, env=ENV, capture_output=True, text=True, timeout=300)


class PluginHosts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="kivbf_hosts_")
        ENV["GST_REGISTRY"] = f"{cls.dir}/gst-registry.bin"
        cls.wav = f"{cls.dir}/in.wav"
        # Two seconds of a tone off broadside in bursts (so that the direction
        # finder rises above the noise it learns and steers) over noise, and a
        # 44.1 kHz copy.
        rng = np.random.default_rng(7)
        t = np.arange(32000) / 16000
        pair = np.stack([0.3 * np.sin(2 * np.pi * 440 * t), 0.3 * np.sin(2 * np.pi * 440 * t + 0.4)], 1)
        pair *= ((t % 0.5) < 0.3)[:, None]
        pair += 0.05 * rng.standard_normal(pair.shape)
        cls.write(cls.wav, (pair * 32767).astype("<i2"), 16000)
        cls.raw = f"{cls.dir}/in.raw"
        (pair * 32767).astype("<i2").tofile(cls.raw)
        cls.wav44 = f"{cls.dir}/in44.wav"
        cls.write(cls.wav44, (pair * 32767).astype("<i2"), 44100)
        ref = f"{cls.dir}/ref.wav"
        subprocess.run([TOOL, "process", *TOOL_ARGS, cls.wav, ref], check=True, capture_output=True)
        cls.expected = read(ref)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    @staticmethod
    def write(path, samples, rate):
        with wave.open(path, "wb") as w:
            w.setnchannels(2)
            w.setsampwidth(2)
            w.setframerate(rate)
            w.writeframes(samples.tobytes())

    def check(self, path, tolerance, what, *command):
        """Runs `command`, which writes `path`, and compares that with the tool's output."""
        result = run(*command)
        self.assertEqual(result.returncode, 0, f"{what}: {result.stderr}")
        got = read(path)
        self.assertEqual(len(got), len(self.expected), what)
        diff = np.abs(got[SHIFT:] - self.expected[:-SHIFT])
        self.assertLessEqual(int(diff.max()), tolerance, what)
        self.assertGreater(int(np.abs(got).max()), 1000, what)  # not silence

    def refused(self, result, what, message="44100 Hz is not supported"):
        self.assertNotEqual(result.returncode, 0, what)
        self.assertGreater(result.returncode, 0, f"{what}: killed by a signal")
        if message:
            self.assertIn(message, result.stderr, what)

    @unittest.skipUnless(have("nm"), "binutils missing")
    def test_only_entry_points_exported(self):
        # A library call exported by one plugin would be bound by another in the same host.
        for module, entry in (("ladspa/kivbf.so", ["ladspa_descriptor"]),
                              ("lv2/kivbf.lv2/kivbf.so", ["lv2_descriptor"]),
                              ("gstreamer/libgstkivbf.so",
                               ["gst_plugin_kivbf_get_desc", "gst_plugin_kivbf_register"])):
            if os.path.exists(f"{PLUGINS}/{module}"):
                symbols = run("nm", "-D", "--defined-only", f"{PLUGINS}/{module}").stdout.split()[2::3]
                self.assertEqual(symbols, entry, module)

    @unittest.skipUnless(have("applyplugin", "sox"), "ladspa-sdk or sox missing")
    def test_ladspa(self):
        out = f"{self.dir}/applyplugin.wav"
        self.check(out, 1, "applyplugin", "applyplugin", "-s", "0", self.wav, out, "kivbf.so", "kivbf", *LADSPA_ARGS)
        # sox's buffer is in bytes of 2 x int32 frames; no dither on the way back to 16 bits.
        for frames in (3, 37, 4096):
            out = f"{self.dir}/sox{frames}.wav"
            self.check(out, 1, f"sox buffer {frames}", "sox", "-D", "--buffer", str(8 * frames), self.wav, "-b", "16",
                       out, "ladspa", "kivbf", "kivbf", *LADSPA_ARGS, "0")
        for command in (["applyplugin", self.wav44, f"{self.dir}/x.wav", "kivbf.so", "kivbf", *LADSPA_ARGS],
                        ["sox", self.wav44, f"{self.dir}/x.wav", "ladspa", "kivbf", "kivbf", *LADSPA_ARGS, "0"]):
            self.refused(run(*command), command[0], "44100 Hz is not supported; the supported rates are "
                         "8000, 16000, 32000 and 48000 Hz")

    @unittest.skipUnless(have("lv2file", "lv2info", "sord_validate"), "lv2file or lilv-utils missing")
    def test_lv2(self):
        bundle = f"{PLUGINS}/lv2/kivbf.lv2"
        schemas = [os.path.join(d, f) for d, _, files in os.walk("/usr/lib/lv2") for f in files
                   if f.endswith(".ttl")]
        result = run("sord_validate", *schemas, f"{bundle}/manifest.ttl", f"{bundle}/kivbf.ttl")
        self.assertIn("Found 0 errors", result.stdout + result.stderr)
        result = run("lv2info", URI)
        self.assertIn(f"reported by port {3 + len(SETTINGS)}", result.stdout)
        ports = [arg for k, v in SETTINGS.items() for arg in ("-p", f"{k}:{v}")]
        for frames in (1, 37, 4096):
            out = f"{self.dir}/lv2_{frames}.wav"
            self.check(out, 1, f"lv2file block {frames}", "lv2file", "-b", str(frames), "-i", self.wav, "-o", out,
                       "-c", "1:in_l", "-c", "2:in_r", *ports, URI)
        self.refused(run("lv2file", "-i", self.wav44, "-o", f"{self.dir}/x.wav", "-c", "1:in_l", "-c", "2:in_r", URI),
                     "lv2file")

    @unittest.skipUnless(have("gst-launch-1.0", "gst-inspect-1.0"), "gstreamer1.0-tools missing")
    def test_gstreamer(self):
        inspect = run("gst-inspect-1.0", "kivbf").stdout
        for name in SETTINGS:
            self.assertRegex(inspect, rf"\n  {name.replace('_', '-')} +:")
        props = " ".join(f"{k.replace('_', '-')}={v}" for k, v in SETTINGS.items())
        for fmt, tolerance in (("S16LE", 0), ("F32LE", 1)):
            for frames in (1, 37, 4096):
                out = f"{self.dir}/gst_{fmt}_{frames}.wav"
                pipeline = (f"filesrc location={self.raw} blocksize={4 * frames} ! audio/x-raw,"
                            "format=S16LE,rate=16000,channels=2,layout=interleaved ! audioconvert ! "
                            f"audio/x-raw,format={fmt} ! kivbf {props} ! audioconvert dithering=none ! "
                            f"audio/x-raw,format=S16LE ! wavenc ! filesink location={out}")
                self.check(out, tolerance, f"gst {fmt} buffers of {frames}", "gst-launch-1.0", "-q", *pipeline.split())
        # 44.1 kHz cannot negotiate without audioresample in front, and with it runs.
        head = f"filesrc location={self.wav44} ! wavparse ! audioconvert !"
        tail = "kivbf ! fakesink"
        self.refused(run("gst-launch-1.0", "-q", *f"{head} {tail}".split()), "gst 44.1 kHz", message=None)
        result = run("gst-launch-1.0", "-q", *f"{head} audioresample ! {tail}".split())
        self.assertEqual(result.returncode, 0, result.stderr)


if __name__ == "__main__":
    unittest.main()
