// Coherence and direction weighting (modes 3 and 4).
//
// Five-block averages of the two microphones' power spectra and of their
// cross-spectrum give a coherence measure (is one source dominating?) and the
// measured relative transfer function H = X1 / X0, whose phase is compared
// with the target direction's steering to give each bin a weight in (0, 1).
//
// The cross-spectrum is conj(X0) X1. For a plane wave from the target
// direction X_m = S exp(+j f tau_m), so H = exp(+j f (tau1 - tau0)), while
// target_steering = exp(-j f (tau1 - tau0)): their plain product is 1.
#include <cstring>

#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

constexpr float kSpectrumScale = 256.0f;
constexpr float kHistoryShare = 0.2f;  // 1 / kHistoryBlocks
constexpr float kGuard = 1e-6f;
constexpr double kCoherenceCells = 129.0;
constexpr double kCoherentLevel = 0.3;
constexpr uint16_t kCounterMax = 10;
constexpr uint16_t kCounterToFlag = 3;  // the flag needs more than this
constexpr float kScoreNewShare = 0.99f;

// Drops the oldest of the history's blocks; the newest slot is then free.
void ShiftHistory(float *history, int32_t block_floats) {
    std::memmove(history, history + block_floats,
                 sizeof(float) * static_cast<size_t>(block_floats * (kHistoryBlocks - 1)));
}

float *NewestBlock(float *history, int32_t block_floats) {
    return history + block_floats * (kHistoryBlocks - 1);
}

// average = 0.2 x (sum of the history's blocks, oldest first).
void AverageHistory(const float *history, int32_t block_floats, float *average) {
    vec_fill(average, 0.0f, block_floats);
    for (int32_t b = 0; b < kHistoryBlocks; ++b) {
        vec_add(average, history + b * block_floats, average, block_floats);
    }
    vec_scale(average, kHistoryShare, block_floats);
}

// destination = 256 x spectrum, the scale the powers are measured on.
void LoadScaled(const float *spectrum, float *destination) {
    std::memcpy(destination, spectrum, sizeof(float) * kSpectrumFloats);
    cplx_scale(destination, kSpectrumScale, destination, kSpectrumFloats);
}

void AppendCrossSpectrum(BfCoreState &s) {
    LoadScaled(s.raw_mic1_spectrum, s.scaled_mic1);
    cplx_mul_real(s.fft_buffer, s.scaled_mic1, s.scratch_re, kSpectrumFloats, 0);
    cplx_mul_imag(s.fft_buffer, s.scaled_mic1, s.scratch_im, kSpectrumFloats, 0);
    float *history = &s.cross_history[0][0];
    ShiftHistory(history, kSpectrumFloats);
    cplx_interleave(s.scratch_re, s.scratch_im, NewestBlock(history, kSpectrumFloats), kBins);
    AverageHistory(history, kSpectrumFloats, s.avg_cross);
}

}  // namespace

void Bf_SpectraAverage(BfCoreState &s) {
    // Microphone 1 is taken before calibration: coherence and transfer
    // function describe the field as the two microphones picked it up.
    const float *spectra[kMics] = {s.mic_spectrum[0], s.raw_mic1_spectrum};
    for (int32_t m = 0; m < kMics; ++m) {
        LoadScaled(spectra[m], s.fft_buffer);
        float *history = &s.power_history[m][0][0];
        ShiftHistory(history, kBins);
        cplx_power(s.fft_buffer, NewestBlock(history, kBins), kSpectrumFloats);
        AverageHistory(history, kBins, s.avg_power[m]);
        if (m == 0) {
            AppendCrossSpectrum(s);  // fft_buffer still holds 256 x X0
        }
    }
}

void Bf_CoherenceDetect(BfCoreState &s) {
    float *denominator = s.scratch_re;
    float *guard = s.scratch_im;
    cplx_power(s.avg_cross, s.coherence, kSpectrumFloats);
    vec_mul(s.avg_power[0], s.avg_power[1], denominator, kBins);
    vec_fill(guard, kGuard, kBins);
    vec_add(denominator, guard, denominator, kBins);
    vec_divide(s.coherence, denominator, s.coherence, kBins);

    float sum = 0.0f;
    for (int32_t k = 0; k < kBins; ++k) {
        sum += s.coherence[k];
    }
    s.mean_coherence = static_cast<float>(sum / kCoherenceCells);

    if (s.mean_coherence <= kCoherentLevel) {
        if (s.coherence_counter > 0) {
            --s.coherence_counter;
        }
    } else if (s.coherence_counter < kCounterMax) {
        ++s.coherence_counter;
    }
    s.coherent_flag =
        (s.coherence_counter > kCounterToFlag && s.mean_coherence >= kCoherentLevel) ? 1 : 0;
}

void Bf_DirectionScore(BfCoreState &s) {
    float *real_work = s.scratch_re;
    float *guard = s.scratch_im;
    float *transfer = s.scratch_complex;
    vec_fill(guard, kGuard, kBins);

    // H = avg_cross / (P0 + 1e-6), then brought to unit magnitude.
    vec_add(s.avg_power[0], guard, real_work, kBins);
    cplx_divide_by_real(s.avg_cross, real_work, transfer, kSpectrumFloats);
    cplx_power(transfer, real_work, kSpectrumFloats);
    vec_sqrt(real_work, real_work, kBins);
    vec_add(real_work, guard, real_work, kBins);
    cplx_divide_by_real(transfer, real_work, transfer, kSpectrumFloats);

    // Re(H x steering): the cosine of the phase error against the target.
    cplx_mul_real(transfer, s.target_steering, real_work, kSpectrumFloats, 1);
    vec_mix(real_work, s.direction_score, kScoreNewShare, s.direction_score, kBins);
}

void Bf_DirectionWeight(BfCoreState &s) {
    // weight = 1 / (1 + mode3_scale x exp(intensity_limit x (score - 1)))
    float *work = s.scratch_re;
    float *minus_one = s.scratch_im;
    vec_fill(minus_one, -1.0f, kBins);
    vec_add(s.direction_score, minus_one, work, kBins);
    vec_scale(work, s.intensity_limit, kBins);
    vec_exp(work, work, kBins);
    vec_scale(work, s.mode3_scale, kBins);
    vec_add(work, s.unit_vector, work, kBins);
    vec_divide(s.unit_vector, work, s.direction_weight, kBins);
}
