// The detector's front end: the 16 kHz -> 8 kHz down-sampler and the split
// filter bank that turns an 8 kHz frame into six band log energies.
#include "vad_fixed_point.h"
#include "vad_tables.h"
#include "webrtc_vad.h"

namespace kivbf::vad {
namespace {

inline constexpr size_t kMaxClassified = kMaxInputFrame / 2;

// First-order all-pass over every second sample of `in` (states in Q(-1),
// coefficient in Q15); the output is in Q(-1).
void AllPassEveryOther(const int16_t *in, size_t out_length, int16_t coef_q15, int16_t &state,
                       int16_t *out) {
    int32_t state_q15 = WrapShiftLeft32(state, 16);
    for (size_t i = 0; i < out_length; ++i) {
        const int16_t x = in[2 * i];
        const int16_t y = Wrap16(WrapAdd32(state_q15, coef_q15 * x) >> 16);
        out[i] = y;
        state_q15 = WrapShiftLeft32(WrapSub32(x * (1 << 14), coef_q15 * y), 1);
    }
    state = Wrap16(state_q15 >> 16);
}

// Splits `in` into its upper and lower half band, each at half the rate.
void SplitBand(const int16_t *in, size_t in_length, int16_t &upper_state, int16_t &lower_state,
               int16_t *upper, int16_t *lower) {
    const size_t half = in_length / 2;
    AllPassEveryOther(&in[0], half, kAllPassCoefsQ15[0], upper_state, upper);
    AllPassEveryOther(&in[1], half, kAllPassCoefsQ15[1], lower_state, lower);
    for (size_t i = 0; i < half; ++i) {
        const int16_t upper_branch = upper[i];
        upper[i] = Wrap16(upper_branch - lower[i]);
        lower[i] = Wrap16(lower[i] + upper_branch);
    }
}

// Second-order high-pass removing 0-80 Hz from the lowest band (Q14 coefficients).
void HighPass80Hz(const int16_t *in, size_t length, int16_t state[4], int16_t *out) {
    for (size_t i = 0; i < length; ++i) {
        int32_t acc = kHpZeroCoefs[0] * in[i];
        acc += kHpZeroCoefs[1] * state[0];
        acc += kHpZeroCoefs[2] * state[1];
        state[1] = state[0];
        state[0] = in[i];
        acc -= kHpPoleCoefs[1] * state[2];
        acc -= kHpPoleCoefs[2] * state[3];
        state[3] = state[2];
        state[2] = Wrap16(acc >> 14);
        out[i] = state[2];
    }
}

// Band energy in dB, Q4, plus `offset`. While the frame's total-energy
// indicator is still at or below kMinEnergy, this band's energy is added to it.
int16_t BandLogEnergy(const int16_t *band, size_t length, int16_t offset, int16_t &total_energy) {
    int right_shifts = 0;
    uint32_t energy = static_cast<uint32_t>(ScaledEnergy(band, length, right_shifts));
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

}  // namespace

void VadCore_Downsample(const int16_t *in, size_t in_length, int16_t *out, int32_t state[2]) {
    int32_t upper_state = state[0];
    int32_t lower_state = state[1];
    for (size_t n = 0; n < in_length / 2; ++n) {
        const int16_t even = in[2 * n];
        const int16_t odd = in[2 * n + 1];
        const int16_t upper = Wrap16((upper_state >> 1) + ((kAllPassCoefsQ13[0] * even) >> 14));
        upper_state = even - ((kAllPassCoefsQ13[0] * upper) >> 12);
        const int16_t lower = Wrap16((lower_state >> 1) + ((kAllPassCoefsQ13[1] * odd) >> 14));
        lower_state = odd - ((kAllPassCoefsQ13[1] * lower) >> 12);
        out[n] = Wrap16(upper + lower);
    }
    state[0] = upper_state;
    state[1] = lower_state;
}

int16_t VadCore_BandFeatures(VadDetectorState &s, const int16_t *frame, size_t length,
                             int16_t features[kBands]) {
    if (length > kMaxClassified) length = kMaxClassified;
    const size_t half = length / 2;
    const size_t quarter = half / 2;
    const size_t eighth = quarter / 2;
    const size_t sixteenth = eighth / 2;

    int16_t band_2k_4k[kMaxClassified / 2], band_0_2k[kMaxClassified / 2];
    int16_t band_3k_4k[kMaxClassified / 4], band_2k_3k[kMaxClassified / 4];
    int16_t band_1k_2k[kMaxClassified / 4], band_0_1k[kMaxClassified / 4];
    int16_t band_500_1k[kMaxClassified / 8], band_0_500[kMaxClassified / 8];
    int16_t band_250_500[kMaxClassified / 16], band_0_250[kMaxClassified / 16];
    int16_t band_80_250[kMaxClassified / 16];
    int16_t total_energy = 0;

    // The order of the bands matters: the total-energy indicator stops
    // growing once it passes kMinEnergy.
    SplitBand(frame, length, s.split_upper_state[0], s.split_lower_state[0], band_2k_4k, band_0_2k);
    SplitBand(band_2k_4k, half, s.split_upper_state[1], s.split_lower_state[1], band_3k_4k,
              band_2k_3k);
    features[5] = BandLogEnergy(band_3k_4k, quarter, kOffsetVector[5], total_energy);
    features[4] = BandLogEnergy(band_2k_3k, quarter, kOffsetVector[4], total_energy);

    SplitBand(band_0_2k, half, s.split_upper_state[2], s.split_lower_state[2], band_1k_2k, band_0_1k);
    features[3] = BandLogEnergy(band_1k_2k, quarter, kOffsetVector[3], total_energy);

    SplitBand(band_0_1k, quarter, s.split_upper_state[3], s.split_lower_state[3], band_500_1k,
              band_0_500);
    features[2] = BandLogEnergy(band_500_1k, eighth, kOffsetVector[2], total_energy);

    SplitBand(band_0_500, eighth, s.split_upper_state[4], s.split_lower_state[4], band_250_500,
              band_0_250);
    features[1] = BandLogEnergy(band_250_500, sixteenth, kOffsetVector[1], total_energy);

    HighPass80Hz(band_0_250, sixteenth, s.highpass_state, band_80_250);
    features[0] = BandLogEnergy(band_80_250, sixteenth, kOffsetVector[0], total_energy);
    return total_energy;
}

}  // namespace kivbf::vad
