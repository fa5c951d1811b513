"""Python binding of the kivbf beamformer (ctypes over the shared library).

    import numpy as np, kivbf
    bf = kivbf.Beamformer(sample_rate=16000, microphone_distance=5.0)
    bf.set_config(temperature=20)
    bf.set_shape(kivbf.GEOMETRY_LINEAR)
    bf.set_mode(kivbf.MODE_FIXED, 0.0)
    out = bf.run(block)            # block: 128 x 2 int16 -> 128 int16

    mono = kivbf.process(stereo, sample_rate=16000, mode=kivbf.MODE_FIXED)

Every call that returns a status raises KivBfError (carrying the code and its
name) unless the status is KIVBF_OK. The shared library is found through
KIVBF_LIBRARY (a path), then the system's search for "kivbf".
"""
import ctypes
import ctypes.util
import math
import os
import sys

import numpy as np

__all__ = ["KivBfError", "Beamformer", "process", "locate", "get_buffer_size", "get_api_version",
           "STATUS_NAMES", "POINT_NUMBER", "SAMPLE_RATES", "nearest_sample_rate"]

STATUS_NAMES = {
    0x00000000: "KIVBF_OK",
    0x10000301: "KIVBF_ERR_NOT_INITIALISED",
    0x10000302: "KIVBF_ERR_NULL_CONFIG",
    0x10000303: "KIVBF_ERR_HANDLE",
    0x10000304: "KIVBF_ERR_NOISE_ESTIMATION",
    0x10000305: "KIVBF_ERR_VAD_ENABLE",
    0x10000306: "KIVBF_ERR_OUTPUT_GAIN",
    0x10000307: "KIVBF_ERR_NULL_POINTER",
    0x10000308: "KIVBF_ERR_SAMPLE_RATE",
    0x10000309: "KIVBF_ERR_POINT_NUMBER",
    0x10000310: "KIVBF_ERR_MIC_NUMBER",
    0x10000311: "KIVBF_ERR_PREREQUISITE",
    0x10000312: "KIVBF_ERR_SHAPE_AFTER_RUN",
    0x10000313: "KIVBF_ERR_ARRAY_GEOMETRY",
    0x10000314: "KIVBF_ERR_MIC_DISTANCE",
    0x10000315: "KIVBF_ERR_DYNAMIC_LOADING",
    0x10000316: "KIVBF_ERR_MODE",
    0x10000317: "KIVBF_ERR_NO_SHAPE",
    0x10000318: "KIVBF_ERR_ADAPTIVE_INTENSITY",
    0x10000320: "KIVBF_ERR_PF_FLOW",
    0x10000321: "KIVBF_ERR_CALIBRATION",
    0xFFFFFFFF: "KIVBF_ERR_DUMP_OPEN",
    0x10000401: "KIVBFEXT_ERR_MESSAGE_SINK",
    0x10000410: "KIVBFEXT_ERR_AUTO_STEER",
    0x10000411: "KIVBFEXT_ERR_SEARCH_WINDOW",
    0x10000420: "KIVBFEXT_ERR_ENHANCED_SWITCH",
}
# The codes as module constants: kivbf.KIVBF_ERR_MODE == 0x10000316.
globals().update({name: code for code, name in STATUS_NAMES.items()})

MODE_ADAPTIVE = 0
MODE_FIXED = 1
MODE_FIXED_CANCELLER = 2
MODE_POSTFILTER = 3
MODE_POSTFILTER_NO_BAND = 4
GEOMETRY_LINEAR = 0
GEOMETRY_CIRCULAR = 1
POINT_NUMBER = 128
MICS = 2
SAMPLE_RATES = (8000, 16000, 32000, 48000)


class KivBfError(Exception):
    """A call returned a status other than KIVBF_OK.

    `code` is the status (None when KivBf_Init / KivBf_Reset returned NULL),
    `name` its macro name, `call` the library function."""

    def __init__(self, code, call, reason=None):
        self.code = code
        self.call = call
        self.name = STATUS_NAMES.get(code, "unknown status") if code is not None else "NULL handle"
        where = f"{call}: " if call else ""
        text = f"{self.name} (0x{code:08X})" if code is not None else self.name
        super().__init__(where + text + (f": {reason}" if reason else ""))


class AudioBfInit(ctypes.Structure):
    _fields_ = [("point_number", ctypes.c_uint32), ("sample_rate", ctypes.c_uint32),
                ("microphone_distance", ctypes.c_float), ("mic_number", ctypes.c_uint32)]


class AudioBfConfig(ctypes.Structure):
    _fields_ = [("temperature", ctypes.c_uint32), ("noise_threshold_db", ctypes.c_int32),
                ("Noise_estimation", ctypes.c_uint32), ("output_gain", ctypes.c_float),
                ("vad_enable", ctypes.c_uint32), ("diagonal_loading", ctypes.c_int32)]


def _load():
    path = os.environ.get("KIVBF_LIBRARY") or ctypes.util.find_library("kivbf") or "libkivbf.so"
    try:
        lib = ctypes.CDLL(path)
    except OSError as error:
        raise OSError(f"cannot load the kivbf shared library ({error}); "
                      "set KIVBF_LIBRARY to the path of libkivbf.so") from error
    u32, i32, f32, vp = ctypes.c_uint32, ctypes.c_int32, ctypes.c_float, ctypes.c_void_p
    ptr = ctypes.POINTER
    signatures = {
        "KivBf_GetBufferSize": (u32, []),
        "KivBf_Init": (vp, [vp, ptr(AudioBfInit)]),
        "KivBf_Reset": (vp, [vp, ptr(AudioBfInit)]),
        "KivBf_Free": (u32, [vp]),
        "KivBf_GetAPIVersion": (u32, [ptr(ctypes.c_uint16), ptr(ctypes.c_uint16)]),
        "KivBf_SetCallbackFunction": (u32, [vp, vp, vp, vp]),
        "KivBf_Run": (u32, [vp, ptr(ctypes.c_int16), ptr(ctypes.c_int16), ptr(f32)]),
        "KivBf_SetConfig": (u32, [vp, ptr(AudioBfConfig)]),
        "KivBf_GetConfig": (u32, [vp, ptr(AudioBfConfig)]),
        "KivBf_SetShape": (u32, [vp, u32]),
        "KivBf_SetArbitraryShape": (u32, [vp, ptr(f32)]),
        "KivBf_GetArrayPosition": (u32, [vp, ptr(f32)]),
        "KivBf_SetMode": (u32, [vp, u32, f32]),
        "KivBf_SetAdaptiveIntensity": (u32, [vp, i32]),
        "KivBf_DynamicLoading": (u32, [vp, ptr(i32), ptr(i32), u32]),
        "KivBf_SetPfFlow": (u32, [vp, u32]),
        "KivBf_SetCalibration": (u32, [vp, u32]),
        "KivBfExt_SetAutoSteer": (u32, [vp, u32]),
        "KivBfExt_SetDirectionFinder": (u32, [vp, u32]),
        "KivBfExt_SetSearchWindow": (u32, [vp, f32, f32]),
        "KivBfExt_GetDirection": (u32, [vp, ptr(f32), ptr(f32)]),
        "KivBfExt_SetEnhancedMode": (u32, [vp, u32]),
        "KivBfExt_GetEnhancedMode": (u32, [vp, ptr(u32)]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


_lib = _load()


def _check(call, status):
    if status != 0:
        raise KivBfError(status, call)


def _array(values, dtype, count, what):
    array = np.ascontiguousarray(values, dtype=dtype)
    if array.size != count:
        raise ValueError(f"{what}: {count} values expected, got {array.size}")
    return array


def _pointer(array, ctype):
    return array.ctypes.data_as(ctypes.POINTER(ctype))


def get_buffer_size():
    """Bytes of working buffer one handle needs."""
    return int(_lib.KivBf_GetBufferSize())


def get_api_version():
    """(major, minor) of the library's API."""
    major, minor = ctypes.c_uint16(), ctypes.c_uint16()
    _check("KivBf_GetAPIVersion", _lib.KivBf_GetAPIVersion(ctypes.byref(major), ctypes.byref(minor)))
    return major.value, minor.value


class Beamformer:
    """One handle in a working buffer that this object owns."""

    def __init__(self, sample_rate=16000, microphone_distance=5.0, point_number=POINT_NUMBER,
                 mic_number=MICS):
        size = get_buffer_size()
        self._storage = np.zeros(size + 16, dtype=np.uint8)
        address = self._storage.ctypes.data
        self._buffer = ctypes.c_void_p(address + (-address) % 16)
        self._handle = None
        self._init = AudioBfInit(point_number, sample_rate, microphone_distance, mic_number)
        handle = _lib.KivBf_Init(self._buffer, ctypes.byref(self._init))
        if not handle:
            raise KivBfError(None, "KivBf_Init", _init_refusal(self._init))
        self._handle = ctypes.c_void_p(handle)

    @property
    def handle(self):
        """The AudioBfHandle (None once freed)."""
        return self._handle

    def reset(self, sample_rate=None, microphone_distance=None, point_number=None, mic_number=None):
        """KivBf_Reset with the init record, fields not given kept from the last one."""
        for field, value in (("sample_rate", sample_rate), ("microphone_distance", microphone_distance),
                             ("point_number", point_number), ("mic_number", mic_number)):
            if value is not None:
                setattr(self._init, field, value)
        handle = _lib.KivBf_Reset(self._handle or self._buffer, ctypes.byref(self._init))
        if not handle:
            raise KivBfError(None, "KivBf_Reset")
        self._handle = ctypes.c_void_p(handle)

    def free(self):
        if self._handle is not None:
            _check("KivBf_Free", _lib.KivBf_Free(self._handle))
            self._handle = None

    def close(self):
        self.free()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.free()

    def set_callback_function(self, a=None, b=None, c=None, d=None):
        """Accepted for compatibility; the library ignores it."""
        _check("KivBf_SetCallbackFunction", _lib.KivBf_SetCallbackFunction(a, b, c, d))

    def get_config(self):
        """The configuration as a dict of the AudioBfConfig fields."""
        config = AudioBfConfig()
        _check("KivBf_GetConfig", _lib.KivBf_GetConfig(self._handle, ctypes.byref(config)))
        return {name: getattr(config, name) for name, _ in AudioBfConfig._fields_}

    def set_config(self, **fields):
        """Sets the fields given (others keep their current values); returns the
        configuration as the library clamped it."""
        current = self.get_config() if self._handle is not None else {}
        unknown = set(fields) - {name for name, _ in AudioBfConfig._fields_}
        if unknown:
            raise TypeError(f"unknown configuration fields: {sorted(unknown)}")
        current.update(fields)
        config = AudioBfConfig(**current)
        _check("KivBf_SetConfig", _lib.KivBf_SetConfig(self._handle, ctypes.byref(config)))
        return {name: getattr(config, name) for name, _ in AudioBfConfig._fields_}

    def set_shape(self, array_geometry):
        _check("KivBf_SetShape", _lib.KivBf_SetShape(self._handle, array_geometry))

    def set_arbitrary_shape(self, array_pos):
        """array_pos: x, y per microphone in cm."""
        pos = _array(array_pos, np.float32, 2 * MICS, "array_pos")
        _check("KivBf_SetArbitraryShape",
               _lib.KivBf_SetArbitraryShape(self._handle, _pointer(pos, ctypes.c_float)))

    def get_array_position(self):
        """Microphone positions in cm, one row (x, y, z) per microphone."""
        pos = np.zeros(3 * MICS, dtype=np.float32)
        _check("KivBf_GetArrayPosition",
               _lib.KivBf_GetArrayPosition(self._handle, _pointer(pos, ctypes.c_float)))
        return pos.reshape(MICS, 3)

    def set_mode(self, mode, angle=0.0):
        _check("KivBf_SetMode", _lib.KivBf_SetMode(self._handle, mode, angle))

    def set_adaptive_intensity(self, intensity):
        _check("KivBf_SetAdaptiveIntensity", _lib.KivBf_SetAdaptiveIntensity(self._handle, intensity))

    def dynamic_loading(self, band, dl_intensity, is_dynamic=1):
        """band: 6 ascending bins in [1, 128]; dl_intensity: 7 factors in [1, 1000]."""
        edges = _array(band, np.int32, 6, "band")
        factors = _array(dl_intensity, np.int32, 7, "dl_intensity")
        _check("KivBf_DynamicLoading",
               _lib.KivBf_DynamicLoading(self._handle, _pointer(edges, ctypes.c_int32),
                                         _pointer(factors, ctypes.c_int32), is_dynamic))

    def set_pf_flow(self, flow):
        _check("KivBf_SetPfFlow", _lib.KivBf_SetPfFlow(self._handle, flow))

    def set_calibration(self, calibration_flag):
        _check("KivBf_SetCalibration", _lib.KivBf_SetCalibration(self._handle, calibration_flag))

    def set_auto_steer(self, on):
        _check("KivBfExt_SetAutoSteer", _lib.KivBfExt_SetAutoSteer(self._handle, int(on)))

    def set_direction_finder(self, on):
        _check("KivBfExt_SetDirectionFinder", _lib.KivBfExt_SetDirectionFinder(self._handle, int(on)))

    def set_search_window(self, centre, half_width=180.0):
        _check("KivBfExt_SetSearchWindow", _lib.KivBfExt_SetSearchWindow(self._handle, centre, half_width))

    def get_direction(self):
        """(degrees, confidence) of the direction finder's latest estimate."""
        degrees, confidence = ctypes.c_float(), ctypes.c_float()
        _check("KivBfExt_GetDirection", _lib.KivBfExt_GetDirection(
            self._handle, ctypes.byref(degrees), ctypes.byref(confidence)))
        return degrees.value, confidence.value
    def set_enhanced_mode(self, enable=True):
        """kivbf_ext.h: the enhanced mode on (True, 1) or off (False, 0); a
        successful set_mode also ends it."""
        _check("KivBfExt_SetEnhancedMode", _lib.KivBfExt_SetEnhancedMode(self._handle, int(enable)))

    def get_enhanced_mode(self):
        enabled = ctypes.c_uint32()
        _check("KivBfExt_GetEnhancedMode",
               _lib.KivBfExt_GetEnhancedMode(self._handle, ctypes.byref(enabled)))
        return bool(enabled.value)

    def run(self, block, direction=0.0):
        """One block: 128 frames of 2 int16 channels (shape (128, 2) or 256
        interleaved) in, 128 int16 out."""
        samples = _array(block, np.int16, MICS * POINT_NUMBER, "block")
        output = np.zeros(POINT_NUMBER, dtype=np.int16)
        angle = ctypes.c_float(direction)
        _check("KivBf_Run", _lib.KivBf_Run(self._handle, _pointer(samples, ctypes.c_int16),
                                           _pointer(output, ctypes.c_int16), ctypes.byref(angle)))
        return output

    def __del__(self):
        try:
            self.free()
        except Exception:  # noqa: BLE001 - never raise from a finaliser
            pass


def _to_pcm(x):
    x = np.asarray(x)
    if x.ndim != 2 or x.shape[1] != MICS:
        raise ValueError("x must have shape (samples, 2)")
    if np.issubdtype(x.dtype, np.floating):
        x = np.clip(np.round(x * 32768.0), -32768, 32767)
    return np.ascontiguousarray(x, dtype=np.int16)


def _init_refusal(init):
    """Why KivBf_Init refuses `init`, as far as the record shows."""
    if init.sample_rate not in SAMPLE_RATES:
        rates = ", ".join(str(r) for r in SAMPLE_RATES)
        return f"sample rate {init.sample_rate} Hz is not supported ({rates} Hz)"
    if init.point_number != POINT_NUMBER:
        return f"point_number {init.point_number} is not {POINT_NUMBER}"
    if init.mic_number != MICS:
        return f"mic_number {init.mic_number} is not {MICS}"
    if not init.microphone_distance > 0:
        return f"microphone_distance {init.microphone_distance} is not above 0"
    return None


def nearest_sample_rate(rate):
    """The supported rate nearest to `rate` (ties to the higher one)."""
    return min(reversed(SAMPLE_RATES), key=lambda r: abs(r - rate))


def _resample(x, rate_from, rate_to):
    """Float signal along axis 0 from one rate to another (polyphase, scipy)."""
    from scipy.signal import resample_poly
    common = math.gcd(rate_from, rate_to)
    return resample_poly(x, rate_to // common, rate_from // common, axis=0)


def process(x, sample_rate=16000, microphone_distance=5.0, shape=GEOMETRY_LINEAR, mode=MODE_ADAPTIVE,
            angle=0.0, direction=0.0, compensate_latency=True, intensity=None, pf_flow=None,
            calibration=0, dynamic_loading=None, auto_steer=False, search_window=None, enhanced=False,
            **config):
    """Beamforms a whole two-channel signal and returns the mono result.

    x: shape (samples, 2), int16 PCM or floats in [-1, 1). The output has as
    many samples as x, int16 (floats in, floats out). With compensate_latency
    the library's one block of delay is removed. `config` takes AudioBfConfig
    fields (temperature defaults to 20 C); dynamic_loading is (band, factors);
    auto_steer lets the direction finder steer modes 0, 3 and 4, confined to
    search_window (centre, half-width) degrees when given.
    Mode 4, which KivBf_SetMode refuses but keeps, is run all the same.
    Other sample rates are converted to the nearest supported one and back
    with scipy.signal.resample_poly (a note goes to stderr). enhanced runs
    the enhanced mode (kivbf_ext.h) after the mode is set."""
    floats = np.issubdtype(np.asarray(x).dtype, np.floating)
    if sample_rate not in SAMPLE_RATES:
        run_rate = nearest_sample_rate(sample_rate)
        print(f"kivbf.process: resampling {sample_rate} Hz to {run_rate} Hz and back", file=sys.stderr)
        signal = _to_pcm(x).astype(np.float64) / 32768.0
        mono = process(_resample(signal, sample_rate, run_rate), run_rate, microphone_distance, shape, mode,
                       angle, direction, compensate_latency, intensity, pf_flow, calibration,
                       dynamic_loading, auto_steer, search_window, enhanced, **config)
        back = _resample(mono, run_rate, sample_rate)
        out = np.zeros(signal.shape[0])
        out[:min(len(back), len(out))] = back[:len(out)]
        return out if floats else np.clip(np.round(out * 32768.0), -32768, 32767).astype(np.int16)
    pcm = _to_pcm(x)
    frames = pcm.shape[0]
    with Beamformer(sample_rate, microphone_distance) as bf:
        bf.set_config(**{"temperature": 20, **config})
        bf.set_shape(shape)
        if dynamic_loading is not None:
            bf.dynamic_loading(*dynamic_loading)
        bf.set_calibration(calibration)
        try:
            bf.set_mode(mode, angle)
        except KivBfError as error:
            if not (mode == MODE_POSTFILTER_NO_BAND and error.name == "KIVBF_ERR_MODE"):
                raise
        if intensity is not None:
            bf.set_adaptive_intensity(intensity)
        if pf_flow is not None:
            bf.set_pf_flow(pf_flow)
        if auto_steer:
            bf.set_auto_steer(1)
        if search_window is not None:
            bf.set_search_window(*search_window)
        if enhanced:
            bf.set_enhanced_mode(True)

        delay = POINT_NUMBER if compensate_latency else 0
        blocks = -(-(frames + delay) // POINT_NUMBER)
        padded = np.zeros((blocks * POINT_NUMBER, MICS), dtype=np.int16)
        padded[:frames] = pcm
        output = np.concatenate([bf.run(padded[b * POINT_NUMBER:(b + 1) * POINT_NUMBER], direction)
                                 for b in range(blocks)]) if blocks else np.zeros(0, np.int16)
    result = output[delay:delay + frames]
    return result.astype(np.float64) / 32768.0 if floats else result


def locate(x, sample_rate=16000, microphone_distance=5.0, shape=GEOMETRY_LINEAR, search_window=None,
           **config):
    """The direction finder over a whole two-channel signal: arrays of the
    estimate (degrees) and its confidence after every 128-sample block."""
    pcm = _to_pcm(x)
    blocks = pcm.shape[0] // POINT_NUMBER
    degrees = np.zeros(blocks, dtype=np.float32)
    confidence = np.zeros(blocks, dtype=np.float32)
    with Beamformer(sample_rate, microphone_distance) as bf:
        bf.set_config(**{"temperature": 20, **config})
        bf.set_shape(shape)
        bf.set_mode(MODE_FIXED, 0.0)
        bf.set_direction_finder(1)
        if search_window is not None:
            bf.set_search_window(*search_window)
        for b in range(blocks):
            bf.run(pcm[b * POINT_NUMBER:(b + 1) * POINT_NUMBER])
            degrees[b], confidence[b] = bf.get_direction()
    return degrees, confidence
