// Beam sum and the adaptive sidelobe canceller of the fixed beam (mode 2).
//
// The canceller removes the target from microphone 1 with the blocking filter
// (the fixed beam's steering phase), predicts the noise left in the beam from
// that reference with one complex tap per bin, subtracts the prediction and
// adapts the tap by leaky normalised LMS with a magnitude bound.
//
// Every bin is independent, so each stage runs as one pass over the bins:
// bins 0..127 four at a time, bin 128 alone. Each value goes through the same
// float operations, in the same order, as the element-wise kernels would apply
// (a sum starts from an explicit 0.0f, a scaling by -1.0f stays a product); the
// quotient and square root take the lane estimates in the groups of four and
// IEEE arithmetic in the last bin, exactly like the kernels' tails.
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kStepSize = 0.01f;
constexpr float kLeakage = 0.997f;
constexpr float kPowerSmoothing = 0.01f;
constexpr float kPowerFloor = 1e-6f;
constexpr float kSquaredTapBound = 4.0f;  // |H| <= 2

struct Complex4 {
    float32x4_t re;
    float32x4_t im;
};

Complex4 Load4(const float *a, int32_t k) {
    const float32x4x2_t v = vld2q_f32(a + 2 * k);
    return {v.val[0], v.val[1]};
}

void Store4(float *a, int32_t k, Complex4 v) {
    float32x4x2_t pair;
    pair.val[0] = v.re;
    pair.val[1] = v.im;
    vst2q_f32(a + 2 * k, pair);
}

// a * b
Complex4 Product(Complex4 a, Complex4 b) {
    return {vsubq_f32(vmulq_f32(a.re, b.re), vmulq_f32(a.im, b.im)),
            vaddq_f32(vmulq_f32(a.re, b.im), vmulq_f32(a.im, b.re))};
}

// conj(a) * b
Complex4 ConjugateProduct(Complex4 a, Complex4 b) {
    return {vaddq_f32(vmulq_f32(a.re, b.re), vmulq_f32(a.im, b.im)),
            vsubq_f32(vmulq_f32(a.re, b.im), vmulq_f32(a.im, b.re))};
}

Complex4 Add(Complex4 a, Complex4 b) { return {vaddq_f32(a.re, b.re), vaddq_f32(a.im, b.im)}; }

Complex4 Scale(Complex4 a, float c) { return {vmulq_n_f32(a.re, c), vmulq_n_f32(a.im, c)}; }

Complex4 ScaleByReal(Complex4 a, float32x4_t g) { return {vmulq_f32(a.re, g), vmulq_f32(a.im, g)}; }

struct Complex1 {
    float re;
    float im;
};

Complex1 Load1(const float *a, int32_t k) { return {a[2 * k], a[2 * k + 1]}; }

void Store1(float *a, int32_t k, Complex1 v) {
    a[2 * k] = v.re;
    a[2 * k + 1] = v.im;
}

Complex1 Product(Complex1 a, Complex1 b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

Complex1 ConjugateProduct(Complex1 a, Complex1 b) {
    return {a.re * b.re + a.im * b.im, a.re * b.im - a.im * b.re};
}

Complex1 Add(Complex1 a, Complex1 b) { return {a.re + b.re, a.im + b.im}; }

Complex1 Scale(Complex1 a, float c) { return {a.re * c, a.im * c}; }

Complex1 ScaleByReal(Complex1 a, float g) { return {a.re * g, a.im * g}; }

// Y = 0 + W0 X0 + W1 X1 for four bins.
void BeamSum4(BfCoreState &s, int32_t k) {
    const Complex4 zero = {vdupq_n_f32(0.0f), vdupq_n_f32(0.0f)};
    Complex4 beam = zero;
    for (int32_t m = 0; m < kMics; ++m)
        beam = Add(beam, Product(Load4(s.beam_weights[m], k), Load4(s.mic_spectrum[m], k)));
    Store4(s.beam_output, k, beam);
}

void BeamSum1(BfCoreState &s, int32_t k) {
    Complex1 beam = {0.0f, 0.0f};
    for (int32_t m = 0; m < kMics; ++m)
        beam = Add(beam, Product(Load1(s.beam_weights[m], k), Load1(s.mic_spectrum[m], k)));
    Store1(s.beam_output, k, beam);
}

// One canceller step for four bins:
//   U = X1 - B X0                    (blocking)
//   P = 0 + conj(U) H                (prediction)
//   S = max(0.01 |U|^2 + 0.99 S, 1e-6), U~ = U / S
//   E = Y - P                        (the error replaces the beam)
//   H = 0.997 H + 0.01 U~ conj(E), then |H| bounded by 2, phase kept:
//   g = min(sqrt(4 / (1 (0 + |H|^2))), 1); a zero tap gives 4 / 0 = inf, so g = 1.
void Cancel4(BfCoreState &s, int32_t k) {
    const float32x4_t zero = vdupq_n_f32(0.0f);
    const Complex4 blocked =
        Scale(Product(Load4(s.steering_phase, k), Load4(s.mic_spectrum[0], k)), -1.0f);
    const Complex4 reference = Add(Load4(s.mic_spectrum[1], k), blocked);
    Complex4 tap = Load4(s.anc_filter, k);
    const Complex4 prediction = Add({zero, zero}, ConjugateProduct(reference, tap));

    const float32x4_t reference_power = vaddq_f32(vmulq_f32(reference.re, reference.re),
                                                  vmulq_f32(reference.im, reference.im));
    const float32x4_t smoothed =
        vaddq_f32(vmulq_n_f32(reference_power, kPowerSmoothing),
                  vmulq_n_f32(vld1q_f32(s.reference_power + k), 1.0f - kPowerSmoothing));
    const float32x4_t floored = vmaxq_f32(smoothed, vdupq_n_f32(kPowerFloor));
    vst1q_f32(s.reference_power + k, floored);
    const Complex4 normalised = ScaleByReal(reference, Reciprocal(floored));

    const Complex4 error = Add(Load4(s.beam_output, k), Scale(prediction, -1.0f));
    Store4(s.beam_output, k, error);

    const Complex4 error_conjugate = {error.re, vnegq_f32(error.im)};
    const Complex4 step = Scale(Product(normalised, error_conjugate), kStepSize);
    tap = Add(Scale(tap, kLeakage), step);

    const float32x4_t tap_power = vaddq_f32(vmulq_f32(tap.re, tap.re), vmulq_f32(tap.im, tap.im));
    const float32x4_t squared = vmulq_n_f32(vaddq_f32(zero, tap_power), 1.0f);
    const float32x4_t ratio = vmulq_f32(vdupq_n_f32(kSquaredTapBound), Reciprocal(squared));
    const float32x4_t gain = vminq_f32(SquareRoot(ratio), vdupq_n_f32(1.0f));
    Store4(s.anc_filter, k, ScaleByReal(tap, gain));
}

void Cancel1(BfCoreState &s, int32_t k) {
    const Complex1 blocked =
        Scale(Product(Load1(s.steering_phase, k), Load1(s.mic_spectrum[0], k)), -1.0f);
    const Complex1 reference = Add(Load1(s.mic_spectrum[1], k), blocked);
    Complex1 tap = Load1(s.anc_filter, k);
    const Complex1 prediction = Add({0.0f, 0.0f}, ConjugateProduct(reference, tap));

    const float reference_power = reference.re * reference.re + reference.im * reference.im;
    const float smoothed =
        kPowerSmoothing * reference_power + (1.0f - kPowerSmoothing) * s.reference_power[k];
    const float floored = ScalarMax(smoothed, kPowerFloor);
    s.reference_power[k] = floored;
    const Complex1 normalised = {ScalarQuotient(reference.re, floored),
                                 ScalarQuotient(reference.im, floored)};

    const Complex1 error = Add(Load1(s.beam_output, k), Scale(prediction, -1.0f));
    Store1(s.beam_output, k, error);

    const Complex1 error_conjugate = {error.re, -error.im};
    const Complex1 step = Scale(Product(normalised, error_conjugate), kStepSize);
    tap = Add(Scale(tap, kLeakage), step);

    const float tap_power = tap.re * tap.re + tap.im * tap.im;
    const float squared = (0.0f + tap_power) * 1.0f;
    const float ratio = ScalarQuotient(kSquaredTapBound, squared);
    const float gain = ScalarMin(ScalarSquareRoot(ratio), 1.0f);
    Store1(s.anc_filter, k, ScaleByReal(tap, gain));
}

}  // namespace

void Bf_BeamSum(BfCoreState &s) {
    ForEachLaneGroup(
        kBins, [&](int32_t k) { BeamSum4(s, k); }, [&](int32_t k) { BeamSum1(s, k); });
}

void Bf_Canceller(BfCoreState &s) {
    ForEachLaneGroup(
        kBins, [&](int32_t k) { Cancel4(s, k); }, [&](int32_t k) { Cancel1(s, k); });
}
