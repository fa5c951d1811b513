// Post-filter of modes 3 and 4.
//
// The raw per-bin gain is smoothed across frequency with a 22-tap window so
// that isolated bins cannot punch narrow holes into the spectrum (the cause
// of musical noise); near both ends the window reaches past the spectrum and
// the sum of the taps that remain inside renormalises it. The smoothed gain
// is then either applied to the beam with a small dry share or only mixed
// into the gain state.
//
// Floor and apply are one body over the element type (vector_lanes.h); the
// smoothing sums four outputs at once in the order vec_dot sums one.
#include "Beamformer_core.h"
#include "Beamformer_core_modes.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

// Smoothing window: symmetric about tap 10, taps sum to 1, last tap 0.
constexpr float kSmoothingTaps[kSmoothTaps] = {
    0.0018f, 0.0072f, 0.0157f, 0.0266f, 0.039f,  0.0519f, 0.0643f, 0.0752f,
    0.0837f, 0.0891f, 0.091f,  0.0891f, 0.0837f, 0.0752f, 0.0643f, 0.0519f,
    0.039f,  0.0266f, 0.0157f, 0.0072f, 0.0018f, 0.0f};

constexpr int32_t kEdgeBins = 11;
// Entry i: sum of the taps that land on existing bins when bin i (or 128 - i)
// is smoothed.
constexpr float kEdgeTapSums[kEdgeBins] = {0.5455f, 0.6346f, 0.7183f, 0.7935f,
                                        0.8578f, 0.9097f, 0.9487f, 0.9753f,
                                        0.991f,  0.9982f, 1.0f};

constexpr int32_t kPadZeros = kSmoothTaps - 1;  // 21 on each side
constexpr int32_t kCentreOffset = 11;           // padded[k + 11 ..] is centred on bin k
constexpr float kGainFloor = 1e-6f;
// The taps in groups of four, then the two left over.
constexpr int32_t kTapGroups = kSmoothTaps / kLanes;
constexpr int32_t kGroupedTaps = kTapGroups * kLanes;

// One smoothed value: x[0..21] against the taps, summed as vec_dot sums: the
// products of lane q group by group, the four lane sums as (l0 + l2) +
// (l1 + l3), then the two remaining products in order.
float SmoothedValue(const float *x) { return vec_dot(x, kSmoothingTaps, kSmoothTaps); }

// Each tap repeated over four lanes.
struct TapLanes {
    float tap[kSmoothTaps][kLanes];
};

constexpr TapLanes MakeTapLanes() {
    TapLanes lanes{};
    for (int32_t i = 0; i < kSmoothTaps; ++i)
        for (int32_t r = 0; r < kLanes; ++r) lanes.tap[i][r] = kSmoothingTaps[i];
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
        for (int32_t i = kGroupedTaps; i < kSmoothTaps; ++i) sum += x[r + i] * kSmoothingTaps[i];
        out[r] = sum;
    }
}

// pf_raw_gain = max(raw [x factor], 1e-6), also written into the middle of
// the zero-padded array the smoothing reads.
template <typename T, bool kWithFactor>
void FloorRawGainBins(BfCoreState &s, const float *raw, const float *factor, float *padded, int32_t k) {
    T gain = Load<T>(raw, k);
    if constexpr (kWithFactor) gain = gain * Load<T>(factor, k);
    gain = AtLeast(gain, kGainFloor);
    Store(s.pf_raw_gain, k, gain);
    Store(padded + kPadZeros, k, gain);
}

template <bool kWithFactor>
void FloorRawGain(BfCoreState &s, const float *raw, const float *factor, float *padded) {
    ForEachBin(kBins, [&](auto element, int32_t k) {
        FloorRawGainBins<decltype(element), kWithFactor>(s, raw, factor, padded, k);
    });
}

// E = pf_mix x E + (1 - pf_mix) x gain x E; the gain goes back to 1.
template <typename T>
void ApplyBins(BfCoreState &s, int32_t k) {
    const T dry(s.pf_mix);
    const T wet(1.0f - s.pf_mix);
    const T gain = Load<T>(s.pf_gain, k);
    const Complex<T> e = LoadComplex<T>(s.beam_output, k);
    const Complex<T> filtered = Scale(e, gain);
    StoreComplex(s.beam_output, k, Scale(e, dry) + Scale(filtered, wet));
    Store(s.pf_gain, k, T(1.0f));
}

}  // namespace

void Bf_PostFilterGain(BfCoreState &s) {
    BF_ALIGN float padded[kPadLength];
    for (int32_t i = 0; i < kPadZeros; ++i) {
        padded[i] = 0.0f;
        padded[kPadZeros + kBins + i] = 0.0f;
    }
    // Without band weighting (mode 4) the raw gain of the last block stays.
    const bool fresh = TraitsOf(s).band_weighting;
    if (fresh && s.pf_flow == 1) {
        FloorRawGain<true>(s, s.direction_weight, s.speech_noise_ratio, padded);
    } else {
        FloorRawGain<false>(s, fresh ? s.direction_weight : s.pf_raw_gain, nullptr, padded);
    }

    // Bin k's window covers padded[k + 11 .. k + 32].
    const float *window_start = padded + kCentreOffset;
    ForEachLaneGroup(
        kBins, [&](int32_t k) { FourSmoothedValues(window_start + k, s.pf_gain + k); },
        [&](int32_t k) { s.pf_gain[k] = SmoothedValue(window_start + k); });

    for (int32_t i = 0; i < kEdgeBins; ++i) {
        s.pf_gain[i] /= kEdgeTapSums[i];
        s.pf_gain[kBins - 1 - i] /= kEdgeTapSums[i];
    }
}

void Bf_PostFilterApply(BfCoreState &s) {
    ForEachBin(kBins, [&](auto element, int32_t k) { ApplyBins<decltype(element)>(s, k); });
}

void Bf_PostFilterMix(BfCoreState &s) {
    vec_mix(kUnitBins.data(), s.pf_gain, s.pf_mix, s.pf_gain, kBins);
}
