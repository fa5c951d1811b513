"""A bound, not a system: what a two-microphone MVDR with a one-block frame
reaches when it knows the scene. Each bin's weights come from the noise's
true covariance and the talker's true transfer function (microphone 1 over
microphone 0, averaged over the whole scene), and a fixed Wiener gain per
bin from the beam's talker and noise spectra. The weights and gains are
the same for every frame, so the processor is linear. The figure shows how
much of the gap to a real estimator is estimation rather than the array."""
import numpy as np

FRAME, HOP = 256, 128
WINDOW = np.sqrt(np.hanning(FRAME + 1)[:FRAME])   # analysis and synthesis: sums to one at HOP
LOADING = 1e-5   # times the mean of the covariance's diagonal


def _frames(x):
    count = max((len(x) - FRAME) // HOP + 1, 0)
    return np.stack([np.fft.rfft(WINDOW * x[i * HOP:i * HOP + FRAME]) for i in range(count)])


def _overlap_add(spectra, length):
    y = np.zeros(length)
    for i, frame in enumerate(spectra):
        y[i * HOP:i * HOP + FRAME] += WINDOW * np.fft.irfft(frame, FRAME)
    return y


def _design(talker, noise):
    """Per-bin weights w (bins, 2) and gains from the scene's images."""
    t = [_frames(talker[:, m]) for m in range(2)]
    v = [_frames(noise[:, m]) for m in range(2)]
    covariance = np.empty((t[0].shape[1], 2, 2), complex)
    for a in range(2):
        for b in range(2):
            covariance[:, a, b] = np.mean(v[a] * np.conj(v[b]), axis=0)
    transfer = np.mean(t[1] * np.conj(t[0]), axis=0) / np.maximum(np.mean(np.abs(t[0]) ** 2, axis=0), 1e-30)
    steering = np.stack([np.ones_like(transfer), transfer], axis=1)
    load = LOADING * np.real(covariance[:, 0, 0] + covariance[:, 1, 1]) / 2 + 1e-30
    loaded = covariance + load[:, None, None] * np.eye(2)
    w = np.linalg.solve(loaded, steering[:, :, None])[:, :, 0]
    w /= np.sum(np.conj(steering) * w, axis=1, keepdims=True)     # w^H d = 1
    beam = lambda s: np.conj(w[:, 0]) * s[0] + np.conj(w[:, 1]) * s[1]
    talker_power = np.mean(np.abs(beam(t)) ** 2, axis=0)
    noise_power = np.mean(np.abs(beam(v)) ** 2, axis=0)
    return w, talker_power / np.maximum(talker_power + noise_power, 1e-30)


def ideal_mvdr(x, talker, noise):
    """x (n, 2) through the weights and gains designed from talker and noise."""
    w, gain = _design(talker, noise)
    spectra = [_frames(x[:, m]) for m in range(2)]
    out = gain * (np.conj(w[:, 0]) * spectra[0] + np.conj(w[:, 1]) * spectra[1])
    return _overlap_add(out, len(x))
