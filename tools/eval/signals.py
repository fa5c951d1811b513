"""Source signals for the benchmark: espeak-ng talkers, music-like tones,
white and pink noise. Every generator takes a numpy Generator so that a
scene's seed fixes every sample."""
import hashlib
import os
import subprocess
import tempfile

import numpy as np
import scipy.io.wavfile
import scipy.signal

SPEECH_RATE = 16000          # espeak-ng's output is resampled to this, then to the scene's rate
ESPEAK_RATE = 22050          # what espeak-ng writes
PAUSE_SECONDS = (0.4, 1.0)   # silence between sentences, drawn uniformly

# Short everyday sentences; a talker reads them in an order its seed picks.
SENTENCES = (
    "Please close the window before the rain comes in.",
    "The train to the coast leaves at half past nine.",
    "Turn the volume down a little, the baby is asleep.",
    "We painted the kitchen a pale shade of green.",
    "Could you read the last number back to me?",
    "A cold wind blew across the empty harbour.",
    "The meeting moved to Thursday afternoon.",
    "She keeps her bicycle in the narrow hallway.",
    "Add two cups of flour and stir it slowly.",
    "The lights in the office switch off at seven.",
    "My brother fixed the old radio last weekend.",
    "Remember to water the plants on the balcony.",
    "The children ran laughing down the hill.",
    "Send me the report as soon as it is ready.",
    "There is a small cafe just around the corner.",
    "He found his keys under a pile of newspapers.",
)

# espeak-ng voices with a variant: accent and speaker differ between talkers.
VOICES = ("en-us", "en-gb+f3", "en-gb-scotland+m3", "en-us+f2", "en-029+m2", "en-gb-x-rp+f4")


def cache_directory():
    """Where rendered sentences are kept: $KIVBF_EVAL_CACHE, else
    $XDG_CACHE_HOME/kivbf-eval, else ~/.cache/kivbf-eval."""
    explicit = os.environ.get("KIVBF_EVAL_CACHE")
    if explicit:
        return explicit
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(base, "kivbf-eval")


def resample(x, rate_from, rate_to):
    if rate_from == rate_to:
        return x
    g = np.gcd(rate_from, rate_to)
    return scipy.signal.resample_poly(x, rate_to // g, rate_from // g)


def spoken_sentence(text, voice, words_per_minute=150):
    """One sentence from espeak-ng at SPEECH_RATE, as floats with peak 1, cached."""
    key = hashlib.sha1(f"{voice}|{words_per_minute}|{text}".encode()).hexdigest()[:16]
    directory = cache_directory()
    path = os.path.join(directory, f"{key}.npy")
    if os.path.exists(path):
        return np.load(path)
    os.makedirs(directory, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch:
        wav = os.path.join(scratch, "sentence.wav")
        subprocess.run(["espeak-ng", "-v", voice, "-s", str(words_per_minute), "-w", wav, text],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        rate, samples = scipy.io.wavfile.read(wav)
    speech = resample(samples.astype(np.float64), rate, SPEECH_RATE)
    speech = (speech / np.max(np.abs(speech))).astype(np.float32)
    np.save(path + ".tmp.npy", speech)        # rename: a parallel run never reads half a file
    os.replace(path + ".tmp.npy", path)
    return speech


def talker(rng, voice, frames, sample_rate):
    """Sentences in random order with pauses between them, `frames` long. The
    first sentence starts after a pause, so the adaptive modes hear noise first."""
    order = rng.permutation(len(SENTENCES))
    pieces, total, i = [], 0, 0
    while total < frames:
        pause = np.zeros(int(rng.uniform(*PAUSE_SECONDS) * sample_rate))
        speech = resample(spoken_sentence(SENTENCES[order[i % len(order)]], voice).astype(np.float64),
                          SPEECH_RATE, sample_rate)
        pieces += [pause, speech]
        total += len(pause) + len(speech)
        i += 1
    return np.concatenate(pieces)[:frames]


def white(rng, frames):
    return rng.standard_normal(frames)


def pink(rng, frames):
    """Noise whose power falls by 3 dB per octave (1/f), from white noise shaped
    in the frequency domain; flat below 20 Hz of the normalised axis."""
    spectrum = np.fft.rfft(rng.standard_normal(frames))
    f = np.fft.rfftfreq(frames)
    spectrum /= np.sqrt(np.maximum(f, 20.0 / 16000.0))
    return np.fft.irfft(spectrum, n=frames)


def tones(rng, frames, sample_rate):
    """Music-like tones: notes of a pentatonic scale, 0.15-0.6 s each, two at a
    time, with decaying harmonics and a plucked envelope."""
    scale = np.array([0, 2, 4, 7, 9])
    out = np.zeros(frames)
    t_all = np.arange(frames) / sample_rate
    for voice_octave in (0, 1):
        start = 0
        while start < frames:
            length = int(rng.uniform(0.15, 0.6) * sample_rate)
            step = scale[rng.integers(len(scale))] + 12 * (voice_octave + rng.integers(2))
            f0 = 196.0 * 2.0 ** (step / 12.0)
            t = t_all[start:start + length] - t_all[start]
            envelope = np.minimum(t / 0.01, 1.0) * np.exp(-t / rng.uniform(0.1, 0.4))
            note = sum(np.sin(2 * np.pi * k * f0 * t + rng.uniform(0, 2 * np.pi)) / k
                       for k in range(1, 8) if k * f0 < 0.45 * sample_rate)
            out[start:start + length] += envelope * note
            start += length
    return out


def source_signal(kind, rng, frames, sample_rate, voice=None):
    """A named source: "talker" (with `voice`), "tones", "white" or "pink"."""
    if kind == "talker":
        return talker(rng, voice or VOICES[rng.integers(len(VOICES))], frames, sample_rate)
    if kind == "tones":
        return tones(rng, frames, sample_rate)
    if kind == "white":
        return white(rng, frames)
    if kind == "pink":
        return pink(rng, frames)
    raise ValueError(f"unknown source signal '{kind}' (talker, tones, white, pink)")
