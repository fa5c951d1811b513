// The detector's front end: the 16 kHz -> 8 kHz down-sampler and the split
// filter bank that turns an 8 kHz frame into six band log energies.
#include "vad_fixed_point.h"
#include "vad_tables.h"
#include "webrtc_vad.h"

namespace kivbf::vad {
namespace {

inline constexpr size_t kMaxClassified = kMaxInputFrame / 2;

// What the log energy of a band needs, gathered while the band is produced.
struct BandMeasure {
    int16_t peak = -1;         // largest magnitude; -32768 wraps to itself and never counts
    uint32_t sum_squares = 0;  // unshifted sum of squares, wrapping like a 32-bit register

    void Add(int16_t x) {
        const int16_t magnitude = Wrap16(x > 0 ? x : -x);
        if (magnitude > peak) peak = magnitude;
        sum_squares += static_cast<uint32_t>(x * x);
    }
};

// One sample through a first-order all-pass: coefficient Q15, input and
// output Q(-1), state Q15 in a 32-bit word that wraps.
inline int16_t AllPassStep(int16_t x, int16_t coef_q15, int32_t &state_q15) {
    const int16_t y = Wrap16(WrapAdd32(state_q15, coef_q15 * x) >> 16);
    state_q15 = WrapShiftLeft32(WrapSub32(x * (1 << 14), coef_q15 * y), 1);
    return y;
}

// One output of the 2:1 down-sampler from an even and an odd input: each goes
// through its own all-pass branch (Q13 coefficients, 32-bit states in Q0) and
// the two branches are summed.
inline int16_t DownsampleStep(int16_t even, int16_t odd, int32_t &upper_state,
                              int32_t &lower_state) {
    const int16_t upper = Wrap16((upper_state >> 1) + ((kAllPassCoefsQ13[0] * even) >> 14));
    upper_state = even - ((kAllPassCoefsQ13[0] * upper) >> 12);
    const int16_t lower = Wrap16((lower_state >> 1) + ((kAllPassCoefsQ13[1] * odd) >> 14));
    lower_state = odd - ((kAllPassCoefsQ13[1] * lower) >> 12);
    return Wrap16(upper + lower);
}

// The first split of a 16 kHz frame fused with its down-sampling: each pair of
// down-sampled samples is stored and split at once. `pairs` pairs are split;
// down-sampled samples from 2 * pairs up to `out_length` are only stored.
void DownsampleAndSplit(const int16_t *in, size_t out_length, size_t pairs,
                        int32_t downsampler_state[2], int16_t &upper_state,
                        int16_t &lower_state, int16_t *downsampled, int16_t *upper,
                        int16_t *lower) {
    int32_t down_upper = downsampler_state[0];
    int32_t down_lower = downsampler_state[1];
    int32_t upper_q15 = WrapShiftLeft32(upper_state, 16);
    int32_t lower_q15 = WrapShiftLeft32(lower_state, 16);
    for (size_t i = 0; i < pairs; ++i) {
        const int16_t even = DownsampleStep(in[4 * i], in[4 * i + 1], down_upper, down_lower);
        const int16_t odd = DownsampleStep(in[4 * i + 2], in[4 * i + 3], down_upper, down_lower);
        downsampled[2 * i] = even;
        downsampled[2 * i + 1] = odd;
        const int16_t upper_branch = AllPassStep(even, kAllPassCoefsQ15[0], upper_q15);
        const int16_t lower_branch = AllPassStep(odd, kAllPassCoefsQ15[1], lower_q15);
        upper[i] = Wrap16(upper_branch - lower_branch);
        lower[i] = Wrap16(lower_branch + upper_branch);
    }
    for (size_t n = 2 * pairs; n < out_length; ++n)
        downsampled[n] = DownsampleStep(in[2 * n], in[2 * n + 1], down_upper, down_lower);
    downsampler_state[0] = down_upper;
    downsampler_state[1] = down_lower;
    upper_state = Wrap16(upper_q15 >> 16);
    lower_state = Wrap16(lower_q15 >> 16);
}

// Splits `in` into its upper and lower half band of `half` samples each: even
// samples through one all-pass branch, odd ones through the other, then the
// difference and the sum. The states keep only their upper 16 bits between
// frames. The bands whose energy is taken next are measured on the way.
template <bool kMeasureUpper, bool kMeasureLower>
void SplitBand(const int16_t *in, size_t half, int16_t &upper_state, int16_t &lower_state,
               int16_t *upper, int16_t *lower, BandMeasure &upper_measure,
               BandMeasure &lower_measure) {
    int32_t upper_q15 = WrapShiftLeft32(upper_state, 16);
    int32_t lower_q15 = WrapShiftLeft32(lower_state, 16);
    BandMeasure upper_acc, lower_acc;
    for (size_t i = 0; i < half; ++i) {
        const int16_t upper_branch = AllPassStep(in[2 * i], kAllPassCoefsQ15[0], upper_q15);
        const int16_t lower_branch = AllPassStep(in[2 * i + 1], kAllPassCoefsQ15[1], lower_q15);
        const int16_t high = Wrap16(upper_branch - lower_branch);
        const int16_t low = Wrap16(lower_branch + upper_branch);
        upper[i] = high;
        lower[i] = low;
        if constexpr (kMeasureUpper) upper_acc.Add(high);
        if constexpr (kMeasureLower) lower_acc.Add(low);
    }
    upper_state = Wrap16(upper_q15 >> 16);
    lower_state = Wrap16(lower_q15 >> 16);
    if constexpr (kMeasureUpper) upper_measure = upper_acc;
    if constexpr (kMeasureLower) lower_measure = lower_acc;
}

// Second-order high-pass removing 0-80 Hz from the lowest band (Q14 coefficients).
void HighPass80Hz(const int16_t *in, size_t length, int16_t state[4], int16_t *out,
                  BandMeasure &measure) {
    int16_t in_1 = state[0], in_2 = state[1], out_1 = state[2], out_2 = state[3];
    BandMeasure acc;
    for (size_t i = 0; i < length; ++i) {
        int32_t sum = kHpZeroCoefs[0] * in[i];
        sum += kHpZeroCoefs[1] * in_1;
        sum += kHpZeroCoefs[2] * in_2;
        sum -= kHpPoleCoefs[1] * out_1;
        sum -= kHpPoleCoefs[2] * out_2;
        in_2 = in_1;
        in_1 = in[i];
        out_2 = out_1;
        out_1 = Wrap16(sum >> 14);
        out[i] = out_1;
        acc.Add(out_1);
    }
    state[0] = in_1;
    state[1] = in_2;
    state[2] = out_1;
    state[3] = out_2;
    measure = acc;
}

// Band energy in dB, Q4, plus `offset`. While the frame's total-energy
// indicator is still at or below kMinEnergy, this band's energy is added to it.
int16_t BandLogEnergy(const int16_t *band, size_t length, const BandMeasure &measure,
                      int16_t offset, int16_t &total_energy) {
    int right_shifts = EnergyScalingShift(measure.peak, length);
    uint32_t energy =
        right_shifts == 0 ? measure.sum_squares : ShiftedEnergy(band, length, right_shifts);
    if (energy == 0) return offset;

    // Bring the energy to 15 significant bits: 2^14 + fraction.
    const int normalising_shifts = 17 - NormUnsigned32(energy);
    right_shifts += normalising_shifts;
    energy = normalising_shifts < 0 ? energy << -normalising_shifts : energy >> normalising_shifts;

    // log2 in Q10: 14 plus the fraction taken as linear.
    const int16_t log2_energy = Wrap16(kLogEnergyIntPart + ((energy & 0x3FFF) >> 4));
    int16_t log_energy =
        Wrap16(((kLogConst * log2_energy) >> 19) + ((right_shifts * kLogConst) >> 9));
    if (log_energy < 0) log_energy = 0;
    log_energy = Wrap16(log_energy + offset);

    if (total_energy <= kMinEnergy) {
        // A non-negative shift means the energy exceeds kMinEnergy by construction.
        const int32_t contribution = right_shifts >= 0
                                         ? kMinEnergy + 1
                                         : static_cast<int32_t>(energy >> -right_shifts);
        total_energy = Wrap16(total_energy + Wrap16(contribution));
    }
    return log_energy;
}

// Everything after the first split: `half` samples of the 2-4 kHz and the
// 0-2 kHz band in, the six band log energies out; returns the frame's
// total-energy indicator.
int16_t FeaturesOfHalves(VadDetectorState &s, const int16_t *band_2k_4k, const int16_t *band_0_2k,
                         size_t half, int16_t features[kBands]) {
    const size_t quarter = half / 2;
    const size_t eighth = quarter / 2;
    const size_t sixteenth = eighth / 2;

    int16_t band_3k_4k[kMaxClassified / 4], band_2k_3k[kMaxClassified / 4];
    int16_t band_1k_2k[kMaxClassified / 4], band_0_1k[kMaxClassified / 4];
    int16_t band_500_1k[kMaxClassified / 8], band_0_500[kMaxClassified / 8];
    int16_t band_250_500[kMaxClassified / 16], band_0_250[kMaxClassified / 16];
    int16_t band_80_250[kMaxClassified / 16];
    BandMeasure measure_high, measure_low, unmeasured;
    int16_t total_energy = 0;

    // The order of the bands matters: the total-energy indicator stops
    // growing once it passes kMinEnergy.
    SplitBand<true, true>(band_2k_4k, quarter, s.split_upper_state[1], s.split_lower_state[1],
                          band_3k_4k, band_2k_3k, measure_high, measure_low);
    features[5] = BandLogEnergy(band_3k_4k, quarter, measure_high, kOffsetVector[5], total_energy);
    features[4] = BandLogEnergy(band_2k_3k, quarter, measure_low, kOffsetVector[4], total_energy);

    SplitBand<true, false>(band_0_2k, quarter, s.split_upper_state[2], s.split_lower_state[2],
                           band_1k_2k, band_0_1k, measure_high, unmeasured);
    features[3] = BandLogEnergy(band_1k_2k, quarter, measure_high, kOffsetVector[3], total_energy);

    SplitBand<true, false>(band_0_1k, eighth, s.split_upper_state[3], s.split_lower_state[3],
                           band_500_1k, band_0_500, measure_high, unmeasured);
    features[2] = BandLogEnergy(band_500_1k, eighth, measure_high, kOffsetVector[2], total_energy);

    SplitBand<true, false>(band_0_500, sixteenth, s.split_upper_state[4], s.split_lower_state[4],
                           band_250_500, band_0_250, measure_high, unmeasured);
    features[1] = BandLogEnergy(band_250_500, sixteenth, measure_high, kOffsetVector[1], total_energy);

    HighPass80Hz(band_0_250, sixteenth, s.highpass_state, band_80_250, measure_low);
    features[0] = BandLogEnergy(band_80_250, sixteenth, measure_low, kOffsetVector[0], total_energy);
    return total_energy;
}

}  // namespace

int16_t VadCore_BandFeatures(VadDetectorState &s, const int16_t *frame, size_t length,
                             int16_t features[kBands]) {
    if (length > kMaxClassified) length = kMaxClassified;
    const size_t half = length / 2;
    int16_t band_2k_4k[kMaxClassified / 2], band_0_2k[kMaxClassified / 2];
    BandMeasure unmeasured;
    SplitBand<false, false>(frame, half, s.split_upper_state[0], s.split_lower_state[0], band_2k_4k,
                            band_0_2k, unmeasured, unmeasured);
    return FeaturesOfHalves(s, band_2k_4k, band_0_2k, half, features);
}

int16_t VadCore_DownsampledBandFeatures(VadDetectorState &s, const int16_t *frame,
                                        size_t frame_length, int16_t *downsampled,
                                        int16_t features[kBands]) {
    const size_t length = frame_length / 2;
    const size_t half = (length > kMaxClassified ? kMaxClassified : length) / 2;
    int16_t band_2k_4k[kMaxClassified / 2], band_0_2k[kMaxClassified / 2];
    DownsampleAndSplit(frame, length, half, s.downsampler_state, s.split_upper_state[0],
                       s.split_lower_state[0], downsampled, band_2k_4k, band_0_2k);
    return FeaturesOfHalves(s, band_2k_4k, band_0_2k, half, features);
}

}  // namespace kivbf::vad
