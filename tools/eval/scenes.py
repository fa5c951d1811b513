"""Scene files: a JSON description of rooms, array, talker and noise, and its
rendering into microphone signals.

    {"defaults": {...},                  # merged under every scene (dicts one level deep)
     "scenes": [{
        "name": "office-5cm", "seed": 7,
        "sample_rate": 16000, "seconds": 8, "temperature": 20,
        "room": {"size": [6, 5, 3], "rt60": 0.4},        # rt60 0: anechoic
        "array": {"spacing_cm": 5, "position": [2.6, 1.9, 1.2]},
        "talker": {"voice": "en-us", "azimuth": 0, "distance": 1.5, "height": 1.6},
        "noise": [{"signal": "talker", "voice": "en-gb+f3", "azimuth": 60, "distance": 2},
                  {"signal": "pink", "diffuse": true, "level_db": -6}],
        "snr_db": 5, "sensor_snr_db": 50, "talker_dbfs": -28,
        "look": 0,                                        # steering; default: the talker's azimuth
        "library": {"vad_enable": 1}}]}                   # AudioBfConfig fields

Azimuths are in degrees as the library counts them (0 broadside, positive
towards microphone 0); distances are horizontal metres from the array centre,
heights absolute. Noise signals: talker, tones, white, pink. `level_db` sets
each noise's share (its power at microphone 0, relative to the others); all of
them together are scaled to `snr_db` below the talker at microphone 0 (both
over the whole scene). Sensor noise, white and independent per microphone, sits
`sensor_snr_db` below the talker.
"""
import json
from dataclasses import dataclass

import numpy as np
import scipy.signal

import rooms
import signals

SCENE_DEFAULTS = {
    "sample_rate": 16000, "seconds": 8.0, "temperature": 20,
    "room": {"size": [6.0, 5.0, 3.0], "rt60": 0.0},
    "array": {"spacing_cm": 5.0},
    "talker": {"azimuth": 0.0, "distance": 1.5, "height": 1.6},
    "noise": [],
    "snr_db": 5.0, "sensor_snr_db": 50.0, "talker_dbfs": -28.0,
    "library": {"vad_enable": 1},
}
ARRAY_HEIGHT = 1.2           # metres, unless the scene places the array
WALL_MARGIN = 0.2            # metres every source and microphone keeps from the walls
SAMPLE_RATES = (8000, 16000, 32000, 48000)


@dataclass
class RenderedScene:
    name: str
    sample_rate: int
    spacing_cm: float
    look: float                  # degrees, the library's convention
    library: dict                # AudioBfConfig fields for the library's modes
    talker: np.ndarray           # (n, 2) the talker's reverberant image at each microphone
    noise: np.ndarray            # (n, 2) everything else: interferers, diffuse and sensor noise
    input_snr_db: float
    description: str

    @property
    def mixture(self):
        return self.talker + self.noise


def _merge(defaults, scene):
    merged = dict(defaults)
    for key, value in scene.items():
        if isinstance(value, dict) and isinstance(merged.get(key), dict):
            merged[key] = {**merged[key], **value}
        else:
            merged[key] = value
    return merged


def load(path):
    """The scenes of a file, each merged over SCENE_DEFAULTS and the file's defaults."""
    with open(path) as f:
        data = json.load(f)
    base = _merge(SCENE_DEFAULTS, data.get("defaults", {}))
    scenes = [_merge(base, scene) for scene in data["scenes"]]
    for i, scene in enumerate(scenes):
        scene.setdefault("name", f"scene{i + 1}")
        if "seed" not in scene:
            raise ValueError(f"{path}: scene '{scene['name']}' has no seed")
        if scene["sample_rate"] not in SAMPLE_RATES:
            raise ValueError(f"{path}: scene '{scene['name']}': sample rate not in {SAMPLE_RATES}")
    return scenes


def _inside(room_size, point, what, scene_name):
    if np.any(point < WALL_MARGIN) or np.any(point > np.asarray(room_size) - WALL_MARGIN):
        raise ValueError(f"scene '{scene_name}': {what} at {np.round(point, 2).tolist()} "
                         f"is not inside the room {room_size}")


def _rms(x):
    return np.sqrt(np.mean(np.square(x)))


def _point_image(scene, source, signal, mics, c):
    room = scene["room"]
    centre = mics.mean(axis=0)
    position = rooms.source_position(centre, source.get("azimuth", 0.0), source.get("distance", 1.5),
                                     source.get("height", centre[2]))
    _inside(room["size"], position, "a source", scene["name"])
    responses = rooms.impulse_responses(room["size"], room["rt60"], position, mics,
                                        scene["sample_rate"], c)
    return np.stack([scipy.signal.fftconvolve(signal, h)[:len(signal)] for h in responses], axis=1)


def describe(scene):
    room = scene["room"]
    noises = ", ".join(
        f"{n['signal']} diffuse" if n.get("diffuse") else f"{n['signal']} at {n.get('azimuth', 0):g}"
        for n in scene["noise"]) or "sensor noise only"
    where = "anechoic" if room["rt60"] <= 0 else f"RT60 {room['rt60']:g} s"
    return (f"{where}, {scene['array']['spacing_cm']:g} cm, talker at {scene['talker']['azimuth']:g} deg "
            f"{scene['talker']['distance']:g} m, {noises}, SNR {scene['snr_db']:g} dB")


def render(scene):
    """Simulates the scene: the talker's and the noise's images at both microphones."""
    rate, frames = scene["sample_rate"], int(round(scene["seconds"] * scene["sample_rate"]))
    c = rooms.speed_of_sound(scene["temperature"])
    spacing_m = scene["array"]["spacing_cm"] / 100.0
    size = scene["room"]["size"]
    # Off the room's mid-plane: a talker at broadside would otherwise reach both
    # microphones through mirror-image (identical) paths.
    centre = scene["array"].get("position", [0.43 * size[0], 0.38 * size[1], ARRAY_HEIGHT])
    mics = rooms.microphone_positions(centre, spacing_m)
    for mic in mics:
        _inside(size, mic, "a microphone", scene["name"])
    seeds = np.random.SeedSequence(scene["seed"]).spawn(len(scene["noise"]) + 2)
    rng = [np.random.default_rng(s) for s in seeds]

    talker_source = scene["talker"]
    speech = signals.source_signal("talker", rng[0], frames, rate, talker_source.get("voice"))
    talker = _point_image(scene, talker_source, speech, mics, c)
    talker *= 10.0 ** (scene["talker_dbfs"] / 20.0) / _rms(talker[:, 0])

    noise = np.zeros((frames, 2))
    for source, generator in zip(scene["noise"], rng[2:]):
        kind = source["signal"]
        if source.get("diffuse"):
            pair = np.stack([signals.source_signal(kind, generator, frames, rate, source.get("voice"))
                             for _ in range(2)])
            image = rooms.diffuse_noise(pair, spacing_m, rate, c).T
        else:
            signal = signals.source_signal(kind, generator, frames, rate, source.get("voice"))
            image = _point_image(scene, source, signal, mics, c)
        noise += image * 10.0 ** (source.get("level_db", 0.0) / 20.0) / _rms(image[:, 0])
    talker_rms = _rms(talker[:, 0])
    if scene["noise"]:
        noise *= talker_rms * 10.0 ** (-scene["snr_db"] / 20.0) / _rms(noise[:, 0])
    noise += rng[1].standard_normal((frames, 2)) * talker_rms * 10.0 ** (-scene["sensor_snr_db"] / 20.0)
    input_snr = 10.0 * np.log10(np.sum(talker[:, 0] ** 2) / np.sum(noise[:, 0] ** 2))
    return RenderedScene(
        name=scene["name"], sample_rate=rate, spacing_cm=scene["array"]["spacing_cm"],
        look=float(scene.get("look", talker_source.get("azimuth", 0.0))), library={"temperature": scene["temperature"], **scene["library"]},
        talker=talker, noise=noise, input_snr_db=float(input_snr), description=describe(scene))
