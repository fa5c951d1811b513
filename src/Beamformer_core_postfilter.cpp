// Post-filter of modes 3 and 4.
//
// The raw per-bin gain is smoothed across frequency with a 22-tap window so
// that isolated bins cannot punch narrow holes into the spectrum (the cause
// of musical noise); near both ends the window reaches past the spectrum and
// the sum of the taps that remain inside renormalises it. The smoothed gain
// is then either applied to the beam with a small dry share or only mixed
// into the gain state.
//
// Bins 0..127 go through four lanes and bin 128 through scalar operations,
// as in every per-bin stage: the lane quotients are refined estimates, the
// last bin's are IEEE divisions.
#include "Beamformer_core.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

// Smoothing window: symmetric about tap 10, taps sum to 1, last tap 0.
constexpr float bconv22[kSmoothTaps] = {
    0.0018f, 0.0072f, 0.0157f, 0.0266f, 0.039f,  0.0519f, 0.0643f, 0.0752f,
    0.0837f, 0.0891f, 0.091f,  0.0891f, 0.0837f, 0.0752f, 0.0643f, 0.0519f,
    0.039f,  0.0266f, 0.0157f, 0.0072f, 0.0018f, 0.0f};
constexpr const float *smooth_window = bconv22;

constexpr int32_t kEdgeBins = 11;
// Entry i: sum of the taps that land on existing bins when bin i (or 128 - i)
// is smoothed.
constexpr float bconv_nor[kEdgeBins] = {0.5455f, 0.6346f, 0.7183f, 0.7935f,
                                        0.8578f, 0.9097f, 0.9487f, 0.9753f,
                                        0.991f,  0.9982f, 1.0f};
constexpr const float *nor_smooth_window = bconv_nor;

constexpr int32_t kPadZeros = kSmoothTaps - 1;  // 21 on each side
constexpr int32_t kCentreOffset = 11;           // padded[k + 11 ..] is centred on bin k
constexpr float kGainFloor = 1e-6f;
constexpr int32_t kLaneBins = LaneCount(kBins);  // bins 0..127; 128 is the tail
constexpr int32_t kLastBin = kBins - 1;
static_assert(kLaneBins == kLastBin, "one bin is left for the scalar tail");
// The taps in groups of four, then the two left over.
constexpr int32_t kTapGroups = kSmoothTaps / kLanes;
constexpr int32_t kGroupedTaps = kTapGroups * kLanes;

// One smoothed value: x[0..21] against the taps, summed as vec_dot sums: the
// products of lane q group by group, the four lane sums as (l0 + l2) +
// (l1 + l3), then the two remaining products in order.
float SmoothedValue(const float *x) { return vec_dot(x, smooth_window, kSmoothTaps); }

// Each tap repeated over four lanes.
struct TapLanes {
    float tap[kSmoothTaps][kLanes];
};

constexpr TapLanes MakeTapLanes() {
    TapLanes lanes{};
    for (int32_t i = 0; i < kSmoothTaps; ++i)
        for (int32_t r = 0; r < kLanes; ++r) lanes.tap[i][r] = bconv22[i];
    return lanes;
}

alignas(16) constexpr TapLanes kTapLanes = MakeTapLanes();

float32x4_t AddTapProducts(float32x4_t sum, const float *x, int32_t tap) {
    return vaddq_f32(sum, vmulq_f32(vld1q_f32(x + tap), vld1q_f32(kTapLanes.tap[tap])));
}

// SmoothedValue for x, x + 1, x + 2 and x + 3 at once: element r of sum_q
// is value r's lane sum q, so every value is summed exactly as
// SmoothedValue sums it.
void FourSmoothedValues(const float *x, float *out) {
    float32x4_t sum0 = vdupq_n_f32(0.0f);
    float32x4_t sum1 = sum0;
    float32x4_t sum2 = sum0;
    float32x4_t sum3 = sum0;
    for (int32_t i = 0; i < kGroupedTaps; i += kLanes) {
        sum0 = AddTapProducts(sum0, x, i);
        sum1 = AddTapProducts(sum1, x, i + 1);
        sum2 = AddTapProducts(sum2, x, i + 2);
        sum3 = AddTapProducts(sum3, x, i + 3);
    }
    vst1q_f32(out, vaddq_f32(vaddq_f32(sum0, sum2), vaddq_f32(sum1, sum3)));
    for (int32_t r = 0; r < kLanes; ++r) {
        float sum = out[r];
        for (int32_t i = kGroupedTaps; i < kSmoothTaps; ++i) sum += x[r + i] * smooth_window[i];
        out[r] = sum;
    }
}

// pf_raw_gain = max(raw [x factor], 1e-6), also written into the middle of
// the zero-padded array the smoothing reads.
template <bool kWithFactor>
void FloorRawGain(BfCoreState &s, const float *raw, const float *factor, float *padded) {
    const float32x4_t floor = vdupq_n_f32(kGainFloor);
    float *middle = padded + kPadZeros;
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        float32x4_t gain = vld1q_f32(raw + k);
        if constexpr (kWithFactor) gain = vmulq_f32(gain, vld1q_f32(factor + k));
        gain = vmaxq_f32(gain, floor);
        vst1q_f32(s.pf_raw_gain + k, gain);
        vst1q_f32(middle + k, gain);
    }
    float gain = raw[kLastBin];
    if constexpr (kWithFactor) gain = gain * factor[kLastBin];
    gain = ScalarMax(gain, kGainFloor);
    s.pf_raw_gain[kLastBin] = gain;
    middle[kLastBin] = gain;
}

}  // namespace

void Bf_PostFilterGain(BfCoreState &s) {
    BF_ALIGN float padded[kPadLength];
    for (int32_t i = 0; i < kPadZeros; ++i) {
        padded[i] = 0.0f;
        padded[kPadZeros + kBins + i] = 0.0f;
    }
    // Mode 4 keeps the raw gain of the last mode-3 block.
    if (s.mode == 3 && s.pf_flow == 1) {
        FloorRawGain<true>(s, s.direction_weight, s.speech_noise_ratio, padded);
    } else {
        FloorRawGain<false>(s, s.mode == 3 ? s.direction_weight : s.pf_raw_gain, nullptr,
                            padded);
    }

    // Bin k's window covers padded[k + 11 .. k + 32].
    const float *window_start = padded + kCentreOffset;
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        FourSmoothedValues(window_start + k, s.pf_gain + k);
    }
    s.pf_gain[kLastBin] = SmoothedValue(window_start + kLastBin);

    for (int32_t i = 0; i < kEdgeBins; ++i) {
        s.pf_gain[i] /= nor_smooth_window[i];
        s.pf_gain[kBins - 1 - i] /= nor_smooth_window[i];
    }
}

void Bf_PostFilterApply(BfCoreState &s) {
    // E = pf_mix x E + (1 - pf_mix) x gain x E; the gain goes back to 1.
    const float dry = s.pf_mix;
    const float wet = 1.0f - dry;
    const float32x4_t unity = vdupq_n_f32(1.0f);
    for (int32_t k = 0; k < kLaneBins; k += kLanes) {
        float32x4x2_t e = vld2q_f32(s.beam_output + 2 * k);
        const float32x4_t gain = vld1q_f32(s.pf_gain + k);
        for (int32_t part = 0; part < 2; ++part) {
            const float32x4_t filtered = vmulq_f32(e.val[part], gain);
            e.val[part] =
                vaddq_f32(vmulq_n_f32(e.val[part], dry), vmulq_n_f32(filtered, wet));
        }
        vst2q_f32(s.beam_output + 2 * k, e);
        vst1q_f32(s.pf_gain + k, unity);
    }
    const float gain = s.pf_gain[kLastBin];
    for (int32_t i = 2 * kLastBin; i < kSpectrumFloats; ++i) {
        const float filtered = s.beam_output[i] * gain;
        s.beam_output[i] = dry * s.beam_output[i] + wet * filtered;
    }
    s.pf_gain[kLastBin] = 1.0f;
}

void Bf_PostFilterMix(BfCoreState &s) {
    vec_mix(s.speech_presence, s.pf_gain, s.pf_mix, s.pf_gain, kBins);
}
