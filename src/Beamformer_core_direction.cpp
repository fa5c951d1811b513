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
//
// Each stage is one pass over the bins: bins 0..127 in groups of four lanes,
// bin 128 with the scalar operations (IEEE division and square root), the
// split the results have always had.
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kSpectrumScale = 256.0f;
constexpr float kHistoryShare = 0.2f;  // 1 / kHistoryBlocks
constexpr float kGuard = 1e-6f;
constexpr double kCoherenceCells = 129.0;
constexpr double kCoherentLevel = 0.3;
constexpr uint16_t kCounterMax = 10;
constexpr uint16_t kCounterToFlag = 3;  // the flag needs more than this
constexpr float kScoreNewShare = 0.99f;
constexpr int32_t kLaneBins = LaneCount(kBins);  // bins 0..127; 128 is the tail
constexpr int32_t kLastBin = kBins - 1;
static_assert(kLaneBins == kLastBin, "one bin is left for the scalar tail");

// The history drops its oldest block and takes `newest` as its last one;
// returns 0.2 x (sum of the blocks, oldest first, onto zero). `history`
// points at this group's floats in block 0, `stride` floats apart per block.
float32x4_t PushAndAverage(float *history, int32_t stride, float32x4_t newest) {
    float32x4_t sum = vdupq_n_f32(0.0f);
    for (int32_t b = 1; b < kHistoryBlocks; ++b) {
        const float32x4_t block = vld1q_f32(history + b * stride);
        vst1q_f32(history + (b - 1) * stride, block);
        sum = vaddq_f32(sum, block);
    }
    vst1q_f32(history + (kHistoryBlocks - 1) * stride, newest);
    return vmulq_n_f32(vaddq_f32(sum, newest), kHistoryShare);
}

float PushAndAverage(float *history, int32_t stride, float newest) {
    float sum = 0.0f;
    for (int32_t b = 1; b < kHistoryBlocks; ++b) {
        const float block = history[b * stride];
        history[(b - 1) * stride] = block;
        sum = sum + block;
    }
    history[(kHistoryBlocks - 1) * stride] = newest;
    return (sum + newest) * kHistoryShare;
}

}  // namespace

void Bf_SpectraAverage(BfCoreState &s) {
    // Microphone 1 is taken before calibration: coherence and transfer
    // function describe the field as the two microphones picked it up. Both
    // spectra are measured at 256 times their scale.
    const float *x0 = s.mic_spectrum[0];
    const float *x1 = s.raw_mic1_spectrum;
    float *power0 = &s.power_history[0][0][0];
    float *power1 = &s.power_history[1][0][0];
    float *cross = &s.cross_history[0][0];
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        float32x4x2_t a = vld2q_f32(x0 + 2 * k);
        float32x4x2_t b = vld2q_f32(x1 + 2 * k);
        a.val[0] = vmulq_n_f32(a.val[0], kSpectrumScale);
        a.val[1] = vmulq_n_f32(a.val[1], kSpectrumScale);
        b.val[0] = vmulq_n_f32(b.val[0], kSpectrumScale);
        b.val[1] = vmulq_n_f32(b.val[1], kSpectrumScale);

        const float32x4_t p0 =
            vaddq_f32(vmulq_f32(a.val[0], a.val[0]), vmulq_f32(a.val[1], a.val[1]));
        const float32x4_t p1 =
            vaddq_f32(vmulq_f32(b.val[0], b.val[0]), vmulq_f32(b.val[1], b.val[1]));
        vst1q_f32(s.avg_power[0] + k, PushAndAverage(power0 + k, kBins, p0));
        vst1q_f32(s.avg_power[1] + k, PushAndAverage(power1 + k, kBins, p1));

        // conj(X0) X1, interleaved as the history keeps it.
        const float32x4_t re =
            vaddq_f32(vmulq_f32(a.val[0], b.val[0]), vmulq_f32(a.val[1], b.val[1]));
        const float32x4_t im =
            vsubq_f32(vmulq_f32(a.val[0], b.val[1]), vmulq_f32(a.val[1], b.val[0]));
        const float32x4x2_t pairs = vzipq_f32(re, im);
        for (int32_t half = 0; half < 2; ++half) {
            const int32_t i = 2 * k + kLanes * half;
            vst1q_f32(s.avg_cross + i, PushAndAverage(cross + i, kSpectrumFloats, pairs.val[half]));
        }
    }

    const int32_t k = kLastBin;
    const float a_re = x0[2 * k] * kSpectrumScale;
    const float a_im = x0[2 * k + 1] * kSpectrumScale;
    const float b_re = x1[2 * k] * kSpectrumScale;
    const float b_im = x1[2 * k + 1] * kSpectrumScale;
    s.avg_power[0][k] = PushAndAverage(power0 + k, kBins, a_re * a_re + a_im * a_im);
    s.avg_power[1][k] = PushAndAverage(power1 + k, kBins, b_re * b_re + b_im * b_im);
    s.avg_cross[2 * k] =
        PushAndAverage(cross + 2 * k, kSpectrumFloats, a_re * b_re + a_im * b_im);
    s.avg_cross[2 * k + 1] =
        PushAndAverage(cross + 2 * k + 1, kSpectrumFloats, a_re * b_im - a_im * b_re);
}

void Bf_CoherenceDetect(BfCoreState &s) {
    // coherence = |avg_cross|^2 / (P0 P1 + 1e-6), summed bin by bin in order.
    const float32x4_t guard = vdupq_n_f32(kGuard);
    float sum = 0.0f;
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        const float32x4x2_t c = vld2q_f32(s.avg_cross + 2 * k);
        const float32x4_t power =
            vaddq_f32(vmulq_f32(c.val[0], c.val[0]), vmulq_f32(c.val[1], c.val[1]));
        const float32x4_t denominator =
            vaddq_f32(vmulq_f32(vld1q_f32(s.avg_power[0] + k), vld1q_f32(s.avg_power[1] + k)),
                      guard);
        float coherence[kLanes];
        vst1q_f32(coherence, vmulq_f32(power, Reciprocal(denominator)));
        for (const float c_k : coherence) sum += c_k;
    }
    const int32_t k = kLastBin;
    const float re = s.avg_cross[2 * k];
    const float im = s.avg_cross[2 * k + 1];
    const float denominator = s.avg_power[0][k] * s.avg_power[1][k] + kGuard;
    sum += ScalarQuotient(re * re + im * im, denominator);
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
    // H = avg_cross / (P0 + 1e-6), brought to unit magnitude by dividing by
    // |H| + 1e-6; Re(H x steering) is the cosine of the phase error against
    // the target, smoothed into the score.
    const float32x4_t guard = vdupq_n_f32(kGuard);
    const float old_share = 1.0f - kScoreNewShare;
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        float32x4x2_t h = vld2q_f32(s.avg_cross + 2 * k);
        const float32x4_t inverse = Reciprocal(vaddq_f32(vld1q_f32(s.avg_power[0] + k), guard));
        h.val[0] = vmulq_f32(h.val[0], inverse);
        h.val[1] = vmulq_f32(h.val[1], inverse);
        const float32x4_t magnitude = SquareRoot(
            vaddq_f32(vmulq_f32(h.val[0], h.val[0]), vmulq_f32(h.val[1], h.val[1])));
        const float32x4_t unit = Reciprocal(vaddq_f32(magnitude, guard));
        h.val[0] = vmulq_f32(h.val[0], unit);
        h.val[1] = vmulq_f32(h.val[1], unit);
        const float32x4x2_t steering = vld2q_f32(s.target_steering + 2 * k);
        const float32x4_t cosine =
            vsubq_f32(vmulq_f32(h.val[0], steering.val[0]), vmulq_f32(h.val[1], steering.val[1]));
        const float32x4_t score = vld1q_f32(s.direction_score + k);
        vst1q_f32(s.direction_score + k, vaddq_f32(vmulq_n_f32(cosine, kScoreNewShare),
                                                   vmulq_n_f32(score, old_share)));
    }
    const int32_t k = kLastBin;
    const float power = s.avg_power[0][k] + kGuard;
    float re = ScalarQuotient(s.avg_cross[2 * k], power);
    float im = ScalarQuotient(s.avg_cross[2 * k + 1], power);
    const float magnitude = ScalarSquareRoot(re * re + im * im) + kGuard;
    re = ScalarQuotient(re, magnitude);
    im = ScalarQuotient(im, magnitude);
    const float cosine = re * s.target_steering[2 * k] - im * s.target_steering[2 * k + 1];
    s.direction_score[k] = kScoreNewShare * cosine + old_share * s.direction_score[k];
}

void Bf_DirectionWeight(BfCoreState &s) {
    // weight = 1 / (1 + mode3_scale x exp(intensity_limit x (score - 1)))
    const float32x4_t minus_one = vdupq_n_f32(-1.0f);
    float work[kBins];
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        const float32x4_t offset = vaddq_f32(vld1q_f32(s.direction_score + k), minus_one);
        vst1q_f32(work + k, vmulq_n_f32(offset, s.intensity_limit));
    }
    work[kLastBin] = (s.direction_score[kLastBin] + -1.0f) * s.intensity_limit;
    for (float &w : work) w = math::ExpF(w);
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        const float32x4_t unit = vld1q_f32(s.unit_vector + k);
        const float32x4_t denominator =
            vaddq_f32(vmulq_n_f32(vld1q_f32(work + k), s.mode3_scale), unit);
        vst1q_f32(s.direction_weight + k, vmulq_f32(unit, Reciprocal(denominator)));
    }
    const float unit = s.unit_vector[kLastBin];
    s.direction_weight[kLastBin] =
        ScalarQuotient(unit, work[kLastBin] * s.mode3_scale + unit);
}
