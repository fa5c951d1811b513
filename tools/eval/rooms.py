"""Shoebox rooms by the image-source method, the two-microphone array in them,
and spatially diffuse noise.

Coordinates are metres with the origin in a corner of the room. The array's
axis is the room's x axis: microphone 0 sits at centre - d/2, microphone 1 at
centre + d/2. A source direction is given as the library counts it: 0 is
broadside (+y seen from the array), positive angles turn towards microphone 0,
so a source at +90 degrees lies on the array axis beyond microphone 0.
"""
import numpy as np
import scipy.signal

SINC_HALF_TAPS = 16          # fractional-delay filter: 32 taps, Hann-windowed sinc
FRACTION_STEPS = 512         # delays rounded to 1/512 sample for the filter table
HIGH_PASS_HZ = 50.0          # removes the image sum's DC build-up (as Allen and Berkley do)
MAX_TAIL_SECONDS = 1.0       # impulse responses end at min(RT60, this) after the direct path
CALIBRATION_STEPS = 4       # fixed-point steps fitting the wall reflection to the RT60
ABSORPTION_MAX = 0.999       # an anechoic request becomes walls that reflect (almost) nothing


def speed_of_sound(temperature_c):
    """m/s, the same rule the library uses."""
    return 331.0 + 0.6 * temperature_c


def microphone_positions(centre, spacing_m):
    """(2, 3) array: microphone 0 at centre - d/2 along x, microphone 1 at + d/2."""
    centre = np.asarray(centre, dtype=float)
    offset = np.array([spacing_m / 2.0, 0.0, 0.0])
    return np.stack([centre - offset, centre + offset])


def direction_vector(azimuth_deg, elevation_deg=0.0):
    """Unit vector from the array towards a source at the library's azimuth."""
    a, e = np.radians(azimuth_deg), np.radians(elevation_deg)
    return np.array([-np.sin(a) * np.cos(e), np.cos(a) * np.cos(e), np.sin(e)])


def source_position(centre, azimuth_deg, distance_m, height_m):
    """A point source `distance_m` from the array centre (horizontal distance)
    at the given azimuth and absolute height."""
    position = np.asarray(centre, dtype=float) + distance_m * direction_vector(azimuth_deg)
    position[2] = height_m
    return position


def eyring_absorption(size, rt60):
    """Uniform wall absorption that gives `rt60` seconds by Eyring's formula,
    RT60 = 0.161 V / (-S ln(1 - alpha)). rt60 <= 0 means anechoic."""
    if rt60 <= 0.0:
        return ABSORPTION_MAX
    lx, ly, lz = size
    volume = lx * ly * lz
    surface = 2.0 * (lx * ly + lx * lz + ly * lz)
    alpha = 1.0 - np.exp(-0.161 * volume / (surface * rt60))
    return float(min(alpha, ABSORPTION_MAX))


def _images(size, source, order, centre, reach):
    """Image positions (n, 3) of the source within `reach` metres of `centre`
    and how many walls each was reflected by."""
    axes = []
    for axis in range(3):
        n = np.arange(-order, order + 1)
        # mirror parity u: position (1 - 2u) s + 2 n L, reflections |n - u| + |n|
        pos = np.concatenate([source[axis] + 2 * n * size[axis], -source[axis] + 2 * n * size[axis]])
        hits = np.concatenate([2 * np.abs(n), np.abs(n - 1) + np.abs(n)])
        axes.append((pos, hits, (pos - centre[axis]) ** 2))
    (px, hx, sx), (py, hy, sy), (pz, hz, sz) = axes
    ix, iy, iz = np.nonzero(sx[:, None, None] + sy[None, :, None] + sz[None, None, :] <= reach ** 2)
    return np.stack([px[ix], py[iy], pz[iz]], axis=1), hx[ix] + hy[iy] + hz[iz]


def _fractional_delay_table():
    """Hann-windowed sinc taps for delays quantised to 1/FRACTION_STEPS sample:
    row q holds the taps k = -SINC_HALF_TAPS + 1 .. SINC_HALF_TAPS for fraction q / steps."""
    k = np.arange(-SINC_HALF_TAPS + 1, SINC_HALF_TAPS + 1)
    x = k[None, :] - np.arange(FRACTION_STEPS + 1)[:, None] / FRACTION_STEPS
    return np.sinc(x) * (0.5 + 0.5 * np.cos(np.pi * x / SINC_HALF_TAPS))


def _add_fractional_delays(response, delays, amplitudes):
    """Adds each amplitude at its (fractional) delay in samples, interpolated by
    a Hann-windowed sinc."""
    table = _fractional_delay_table()
    whole = np.floor(delays).astype(np.int64)
    fraction = np.rint((delays - whole) * FRACTION_STEPS).astype(np.int64)
    length = len(response)
    for tap, k in enumerate(range(-SINC_HALF_TAPS + 1, SINC_HALF_TAPS + 1)):
        index = whole + k
        keep = (index >= 0) & (index < length)
        response += np.bincount(index[keep], weights=(amplitudes * table[fraction, tap])[keep],
                                minlength=length)


def _decay_rt60(delays, energies, sample_rate):
    """RT60 of the energy arrivals (delays in samples, energies) by the
    Schroeder fit, without the fractional-delay interpolation."""
    histogram = np.bincount(delays.astype(np.int64), weights=energies)
    return schroeder_rt60(np.sqrt(histogram), sample_rate)


def _fit_reflection(size, rt60, delays, hits, distance, sample_rate):
    """Wall reflection coefficient (pressure) for which this image set decays in
    rt60 seconds. Eyring's absorption is the start: image sources in a shoebox
    decay more slowly than the diffuse-field formula says (rays along the long
    axes meet few walls), by up to half again, so the decay is measured on the
    images themselves and -ln(beta) scaled by the ratio until it matches."""
    log_beta = 0.5 * np.log(1.0 - eyring_absorption(size, rt60))
    for _ in range(CALIBRATION_STEPS):
        measured = _decay_rt60(delays, np.exp(2.0 * log_beta * hits) / distance ** 2, sample_rate)
        log_beta *= measured / rt60
    return np.exp(log_beta)


def impulse_responses(size, rt60, source, mics, sample_rate, c=343.0):
    """Impulse responses (2, n) from `source` to each microphone, with a wall
    reflection fitted so that the responses decay in rt60 seconds. Reflections
    arriving later than min(RT60, MAX_TAIL_SECONDS) after the direct sound are
    left out; in an anechoic room only the direct path remains."""
    size = np.asarray(size, dtype=float)
    source = np.asarray(source, dtype=float)
    tail = min(rt60, MAX_TAIL_SECONDS) if rt60 > 0.0 else 0.0
    nearest = min(np.linalg.norm(source - m) for m in mics)
    reach = nearest + tail * c              # metres of path length kept
    order = int(np.ceil(reach / (2.0 * size.min()))) + 1 if rt60 > 0.0 else 0
    centre = np.mean(mics, axis=0)
    spread = max(np.linalg.norm(m - centre) for m in mics)
    positions, hits = _images(size, source, order, centre, reach + spread)
    length = int(np.ceil(reach / c * sample_rate)) + 2 * SINC_HALF_TAPS + 1
    responses = np.zeros((len(mics), length))
    beta = None
    for m, mic in enumerate(mics):
        distance = np.linalg.norm(positions - mic, axis=1)
        keep = distance <= reach if rt60 > 0.0 else hits == 0
        d, h = distance[keep], hits[keep]
        if beta is None:
            beta = _fit_reflection(size, rt60, d / c * sample_rate, h, d, sample_rate) \
                if rt60 > 0.0 else 0.0
        _add_fractional_delays(responses[m], d / c * sample_rate, beta ** h / (4.0 * np.pi * d))
    if rt60 > 0.0:
        high_pass = scipy.signal.butter(2, HIGH_PASS_HZ, "highpass", fs=sample_rate, output="sos")
        responses = scipy.signal.sosfilt(high_pass, responses, axis=1)
    return responses


def plane_wave_delay(spacing_m, azimuth_deg, c):
    """Seconds by which microphone 1 hears a far-field wave after microphone 0."""
    return spacing_m * np.sin(np.radians(azimuth_deg)) / c


def diffuse_noise(signals, spacing_m, sample_rate, c):
    """Two channels of spherically diffuse noise from two independent signals
    (2, n): per frequency the channels get the coherence sinc(2 f d / c) of a
    spherically isotropic field (mixing as in Habets & Gannot's generator)."""
    n = signals.shape[1]
    spectra = np.fft.rfft(signals, axis=1)
    f = np.fft.rfftfreq(n, 1.0 / sample_rate)
    coherence = np.sinc(2.0 * f * spacing_m / c)
    # Channel 0 = first signal; channel 1 = rho * first + sqrt(1 - rho^2) * second.
    mixed = np.stack([spectra[0], coherence * spectra[0] + np.sqrt(1.0 - coherence ** 2) * spectra[1]])
    return np.fft.irfft(mixed, n=n, axis=1)


def schroeder_rt60(response, sample_rate, first_db=-5.0, last_db=-25.0):
    """RT60 from the Schroeder backward integral of an impulse response: the
    decay time of a line fitted between first_db and last_db, extrapolated to 60 dB."""
    energy = np.cumsum(response[::-1] ** 2)[::-1]
    curve = 10.0 * np.log10(energy / energy[0] + 1e-300)
    span = np.nonzero((curve <= first_db) & (curve >= last_db))[0]
    t = span / sample_rate
    slope = np.polyfit(t, curve[span], 1)[0]
    return -60.0 / slope
