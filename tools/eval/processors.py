"""The systems the benchmark compares, one registry entry each.

A processor takes the scene's two-channel input as int16 PCM (n, 2) and the
rendered scene, and returns its float output (same length, any latency) and
the seconds one 128-sample block costs (None when not measured). Linear ones
are also run on the talker and the noise alone for the SNR measure.

Adding one is a few lines:

    @processor("ext", "enhanced mode", linear=False)
    def enhanced(pcm, scene):
        return run_library(pcm, scene, mode=..., setup=lambda bf: ...)
"""
import ctypes
import time
from dataclasses import dataclass
from typing import Callable

import numpy as np

import kivbf
import rooms
from ideal import ideal_mvdr

BLOCK = kivbf.POINT_NUMBER


@dataclass
class Processor:
    key: str          # what --modes names it by
    title: str
    linear: bool
    run: Callable


PROCESSORS = {}


def processor(key, title, linear):
    def register(function):
        PROCESSORS[key] = Processor(key, title, linear, function)
        return function
    return register


def _timed_blocks(bf, pcm, direction):
    """Runs every block through the handle; returns the output and the CPU
    seconds per KivBf_Run call, less what the ctypes call costs by itself."""
    lib = kivbf._lib
    blocks = len(pcm) // BLOCK
    data = np.ascontiguousarray(pcm[:blocks * BLOCK], dtype=np.int16)
    out = np.zeros(blocks * BLOCK, dtype=np.int16)
    angle = ctypes.c_float(direction)
    handle, p_angle = bf.handle, ctypes.byref(angle)
    int16_p = ctypes.POINTER(ctypes.c_int16)
    inputs = [data[b * BLOCK:(b + 1) * BLOCK].ctypes.data_as(int16_p) for b in range(blocks)]
    outputs = [out[b * BLOCK:].ctypes.data_as(int16_p) for b in range(blocks)]
    start = time.thread_time()
    for i, o in zip(inputs, outputs):
        status = lib.KivBf_Run(handle, i, o, p_angle)
        if status != 0:
            raise kivbf.KivBfError(status, "KivBf_Run")
    spent = time.thread_time() - start
    # A call with the same four arguments that does nothing: what ctypes itself costs.
    start = time.thread_time()
    for i, o in zip(inputs, outputs):
        lib.KivBf_SetCallbackFunction(handle, i, o, p_angle)
    overhead = time.thread_time() - start
    return out, max(spent - overhead, 0.0) / max(blocks, 1)


def run_library(pcm, scene, mode, setup=None):
    """The library in `mode`, steered at the scene's look direction (SetMode's
    angle and every block's direction), configured by the scene's `library`
    fields (with the scene's temperature). `setup(bf)` may add calls before
    the first block."""
    frames = len(pcm)
    padded = np.zeros((-(-frames // BLOCK) * BLOCK, 2), dtype=np.int16)
    padded[:frames] = pcm
    with kivbf.Beamformer(scene.sample_rate, scene.spacing_cm) as bf:
        bf.set_config(**scene.library)
        bf.set_shape(kivbf.GEOMETRY_LINEAR)
        bf.set_mode(mode, scene.look)
        if setup is not None:
            setup(bf)
        out, seconds = _timed_blocks(bf, padded, scene.look)
    return out[:frames] / 32768.0, seconds


@processor("0", "mode 0 adaptive MVDR", linear=False)
def mode0(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_ADAPTIVE)


@processor("1", "mode 1 fixed superdirective", linear=True)
def mode1(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_FIXED)


@processor("2", "mode 2 fixed + canceller", linear=False)
def mode2(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_FIXED_CANCELLER)


@processor("3", "mode 3 adaptive + post-filter", linear=False)
def mode3(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_POSTFILTER)


@processor("0auto", "mode 0 steered by the direction finder", linear=False)
def mode0_auto(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_ADAPTIVE, setup=lambda bf: bf.set_auto_steer(1))


@processor("3auto", "mode 3 steered by the direction finder", linear=False)
def mode3_auto(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_POSTFILTER, setup=lambda bf: bf.set_auto_steer(1))
@processor("enh", "enhanced mode (kivbf_ext.h)", linear=False)
def enhanced(pcm, scene):
    return run_library(pcm, scene, kivbf.MODE_FIXED, setup=lambda bf: bf.set_enhanced_mode(True))


def delay(x, seconds, sample_rate):
    """x delayed by a (fractional, non-negative) number of seconds, as a linear
    phase over the whole signal (zero-padded so nothing wraps)."""
    pad = int(np.ceil(seconds * sample_rate)) + 1
    n = len(x) + pad
    f = np.fft.rfftfreq(n, 1.0 / sample_rate)
    return np.fft.irfft(np.fft.rfft(x, n) * np.exp(-2j * np.pi * f * seconds), n)[:len(x)]


@processor("das", "delay-and-sum (numpy reference)", linear=True)
def delay_and_sum(pcm, scene):
    """Both microphones time-aligned for a plane wave from the look direction
    and averaged."""
    x = pcm / 32768.0
    lag = rooms.plane_wave_delay(scene.spacing_cm / 100.0, scene.look,
                                 rooms.speed_of_sound(scene.library["temperature"]))
    y = 0.5 * (delay(x[:, 0], max(lag, 0.0), scene.sample_rate) +
               delay(x[:, 1], max(-lag, 0.0), scene.sample_rate))
    return y, None


@processor("ideal", "bound: MVDR and Wiener gain from the scene's true statistics", linear=True)
def ideal(pcm, scene):
    """Knows the talker's and the noise's images: an upper bound for the
    adaptive modes at one block's frame, not a system (see ideal.py)."""
    return ideal_mvdr(pcm / 32768.0, scene.talker, scene.noise), None
