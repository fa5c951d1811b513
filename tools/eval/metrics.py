"""Quality metrics of a beamformer's output against microphone 0's talker image.

Every metric works on the output shifted back by the lag at which its
cross-correlation with the reference peaks (one block for the library), over
the samples both cover (the input's last `lag` samples are left out).
- SI-SDR: 10 log10 |a r|^2 / |y - a r|^2 with a = <y, r> / <r, r>, r the
  reference; the improvement subtracts the same figure for microphone 0's mixture.
- SNR: talker power over noise power in the output. For a linear system the
  talker and the noise run through it separately; otherwise the talker part is
  the least-squares projection of the output onto both microphones' talker
  images filtered by FIR filters of PROJECTION_TAPS taps around the lag, and
  the rest counts as noise. The improvement subtracts the input SNR at microphone 0.
- Log-spectral distance of the talker part (after a least-squares gain) from the
  reference: RMS over LSD_BANDS log-spaced bands (100 Hz to Nyquist) of the dB
  difference of the band powers, per 32 ms frame, averaged over the frames
  whose reference level lies within LSD_RANGE_DB of the loudest frame.
"""
import numpy as np
import scipy.signal

MAX_LAG = 1024                 # samples searched for the output's delay
PROJECTION_HALF_TAPS = 32      # FIR taps each side of the lag: 65 per microphone
LSD_RANGE_DB = 40.0
LSD_FLOOR = 1e-8               # power floor relative to the reference's loudest band
LSD_BANDS = 24                 # log-spaced bands: single bins' reverberant fading is not distortion


def _db(ratio):
    return 10.0 * np.log10(ratio)


def _correlation(x, y, lags):
    """c(k) = sum_n x[n] y[n + k] for each k in lags (|k| < len)."""
    n = len(x)
    size = 1 << int(np.ceil(np.log2(2 * n)))
    c = np.fft.irfft(np.conj(np.fft.rfft(x, size)) * np.fft.rfft(y, size), size)
    return c[np.asarray(lags) % size]


def output_lag(output, reference):
    """Delay in samples (0..MAX_LAG) at which output best matches reference."""
    lags = np.arange(0, min(MAX_LAG, len(output) - 1) + 1)
    return int(lags[np.argmax(np.abs(_correlation(reference, output, lags)))])


def shift_back(x, lag):
    """x advanced by `lag` samples, zero-filled at the end."""
    return np.concatenate([x[lag:], np.zeros(lag)]) if lag > 0 else np.asarray(x, dtype=float)


def si_sdr(estimate, reference):
    scale = np.dot(estimate, reference) / np.dot(reference, reference)
    target = scale * reference
    return _db(np.sum(target ** 2) / np.sum((estimate - target) ** 2))


def projection_split(output, talker_images, lag):
    """(talker part, noise part) of an output: its least-squares projection onto
    the talker images (n, 2) through FIR filters of 2 H + 1 taps around `lag`.
    The normal equations come from correlations (end effects ignored)."""
    half = PROJECTION_HALF_TAPS
    taps = np.arange(-half, half + 1)
    mics = talker_images.shape[1]
    gram = np.zeros((mics * len(taps),) * 2)
    rhs = np.zeros(mics * len(taps))
    offsets = taps[:, None] - taps[None, :]               # j - j'
    for m in range(mics):
        rhs[m * len(taps):(m + 1) * len(taps)] = _correlation(talker_images[:, m], output, lag + taps)
        for m2 in range(mics):
            r = _correlation(talker_images[:, m], talker_images[:, m2], np.arange(-2 * half, 2 * half + 1))
            gram[m * len(taps):(m + 1) * len(taps), m2 * len(taps):(m2 + 1) * len(taps)] = \
                r[2 * half + offsets]
    gains = np.linalg.solve(gram + 1e-9 * np.trace(gram) / len(gram) * np.eye(len(gram)), rhs)
    talker = np.zeros(len(output))
    for m in range(mics):
        filtered = scipy.signal.fftconvolve(talker_images[:, m], gains[m * len(taps):(m + 1) * len(taps)])
        start = half - lag                   # filtered[i] belongs to output sample i - half + lag
        if start >= 0:
            piece = filtered[start:start + len(output)]
            talker[:len(piece)] += piece
        else:
            piece = filtered[:len(output) + start]
            talker[-start:-start + len(piece)] += piece
    return talker, output - talker


def _band_powers(x, sample_rate):
    """Power per (LSD_BANDS log-spaced band from 100 Hz to Nyquist, 32 ms frame)."""
    frame = 1 << int(round(np.log2(0.032 * sample_rate)))
    f, _, z = scipy.signal.stft(x, fs=sample_rate, nperseg=frame, noverlap=frame // 2)
    band = np.digitize(f, np.geomspace(100.0, sample_rate / 2.0, LSD_BANDS + 1)[1:-1])
    power = np.abs(z) ** 2
    keep = f >= 100.0
    return np.stack([power[keep & (band == b)].sum(axis=0) for b in range(LSD_BANDS)])


def log_spectral_distance(estimate, reference, sample_rate):
    pe, pr = _band_powers(estimate, sample_rate), _band_powers(reference, sample_rate)
    floor = LSD_FLOOR * pr.max()
    level = pr.sum(axis=0)
    active = level > level.max() * 10.0 ** (-LSD_RANGE_DB / 10.0)
    distance = np.sqrt(np.mean(_db((pe[:, active] + floor) / (pr[:, active] + floor)) ** 2, axis=0))
    return float(np.mean(distance))


def evaluate(output, talker_images, noise_images, sample_rate, parts=None):
    """Metrics of one output (float, same length as the input) given the scene's
    talker and noise images (n, 2). `parts` = (output of the talker alone,
    output of the noise alone) for a linear system; otherwise the projection
    estimate is used."""
    reference = talker_images[:, 0]
    mixture = reference + noise_images[:, 0]
    lag = output_lag(output, reference)
    aligned = shift_back(output, lag)
    if parts is not None:
        talker_part, noise_part = (shift_back(p, lag) for p in parts)
    else:
        talker_part, noise_part = (shift_back(p, lag) for p in projection_split(output, talker_images, lag))
    # The last `lag` samples of the input never reach the output: compare the rest.
    valid = len(output) - lag
    reference, mixture, noise = reference[:valid], mixture[:valid], noise_images[:valid, 0]
    aligned, talker_part, noise_part = aligned[:valid], talker_part[:valid], noise_part[:valid]
    gain = np.dot(talker_part, reference) / np.dot(talker_part, talker_part)
    input_snr = _db(np.sum(reference ** 2) / np.sum(noise ** 2))
    return {
        "lag": lag,
        "si_sdr_in": si_sdr(mixture, reference),
        "si_sdr_out": si_sdr(aligned, reference),
        "si_sdr_gain": si_sdr(aligned, reference) - si_sdr(mixture, reference),
        "snr_in": input_snr,
        "snr_gain": _db(np.sum(talker_part ** 2) / np.sum(noise_part ** 2)) - input_snr,
        "lsd": log_spectral_distance(gain * talker_part, reference, sample_rate),
    }
