// Beam sum and the adaptive sidelobe canceller of the fixed beam (mode 2).
//
// The canceller removes the target from microphone 1 with the blocking filter
// (the fixed beam's steering phase), predicts the noise left in the beam from
// that reference with one complex tap per bin, subtracts the prediction and
// adapts the tap by leaky normalised LMS with a magnitude bound.
#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

namespace {

constexpr float kStepSize = 0.01f;
constexpr float kLeakage = 0.997f;
constexpr float kPowerSmoothing = 0.01f;
constexpr float kPowerFloor = 1e-6f;
constexpr float kSquaredTapBound = 4.0f;  // |H| <= 2

// scratch_complex = a * b (plain) or conj(a) * b, through the split kernels.
void ComplexProduct(BfCoreState &s, const float *a, const float *b, int32_t plain) {
    cplx_mul_real(a, b, s.scratch_re, kSpectrumFloats, plain);
    cplx_mul_imag(a, b, s.scratch_im, kSpectrumFloats, plain);
    cplx_interleave(s.scratch_re, s.scratch_im, s.scratch_complex, kBins);
}

// U = X1 - B X0.
void AncBlocking(BfCoreState &s) {
    ComplexProduct(s, s.steering_phase, s.mic_spectrum[0], 1);
    cplx_scale(s.scratch_complex, -1.0f, s.scratch_complex, kSpectrumFloats);
    cplx_add(s.mic_spectrum[1], s.scratch_complex, s.noise_reference, kSpectrumFloats);
}

// P = conj(U) H, accumulated over the single reference.
void AncPrediction(BfCoreState &s) {
    vec_fill(s.anc_output, 0.0f, kSpectrumFloats);
    ComplexProduct(s, s.noise_reference, s.anc_filter, 0);
    vec_add(s.anc_output, s.scratch_complex, s.anc_output, kSpectrumFloats);
}

// S = 0.01 |U|^2 + 0.99 S, floored; U~ = U / S.
void AncNormalise(BfCoreState &s) {
    cplx_power(s.noise_reference, s.scratch_re, kSpectrumFloats);
    vec_mix(s.scratch_re, s.reference_power, kPowerSmoothing, s.reference_power, kBins);
    vec_floor(s.reference_power, kPowerFloor, s.reference_power, kBins);
    cplx_divide_by_real(s.noise_reference, s.reference_power, s.normalised_reference,
                        kSpectrumFloats);
}

// E = Y - P, in beam_output.
void AncError(BfCoreState &s) {
    cplx_scale(s.anc_output, -1.0f, s.anc_output, kSpectrumFloats);
    cplx_add(s.beam_output, s.anc_output, s.beam_output, kSpectrumFloats);
}

// g = min(sqrt(4 / |H|^2), 1) per bin; a zero tap gives 4 / 0 = inf and so g = 1.
void BoundTapMagnitude(BfCoreState &s) {
    float *squared = s.scratch_re;
    float *gain = s.scratch_im;
    vec_fill(squared, 0.0f, kBins);
    cplx_power(s.anc_filter, gain, kSpectrumFloats);
    vec_add(squared, gain, squared, kBins);
    vec_scale(squared, 1.0f, kBins);
    vec_fill(gain, kSquaredTapBound, kBins);
    vec_divide(gain, squared, gain, kBins);
    vec_sqrt(gain, gain, kBins);
    vec_ceil(gain, 1.0f, gain, kBins);
    cplx_scale_by_real(s.anc_filter, gain, s.anc_filter, kSpectrumFloats);
}

// H = 0.997 H + 0.01 U~ conj(E), then |H| bounded by 2 with its phase kept.
void AncUpdate(BfCoreState &s) {
    // conj(E) goes into scratch_complex, which the product reads in full
    // before it writes its result there.
    float *error_conjugate = s.scratch_complex;
    for (int32_t k = 0; k < kBins; ++k) {
        error_conjugate[2 * k] = s.beam_output[2 * k];
        error_conjugate[2 * k + 1] = -s.beam_output[2 * k + 1];
    }
    ComplexProduct(s, s.normalised_reference, error_conjugate, 1);
    cplx_scale(s.scratch_complex, kStepSize, s.scratch_complex, kSpectrumFloats);
    cplx_scale(s.anc_filter, kLeakage, s.anc_filter, kSpectrumFloats);
    cplx_add(s.anc_filter, s.scratch_complex, s.anc_filter, kSpectrumFloats);
    BoundTapMagnitude(s);
}

}  // namespace

void Bf_BeamSum(BfCoreState &s) {
    vec_fill(s.beam_output, 0.0f, kSpectrumFloats);
    for (int32_t m = 0; m < kMics; ++m) {
        ComplexProduct(s, s.beam_weights[m], s.mic_spectrum[m], 1);
        vec_add(s.beam_output, s.scratch_complex, s.beam_output, kSpectrumFloats);
    }
}

void Bf_Canceller(BfCoreState &s) {
    AncBlocking(s);
    AncPrediction(s);
    AncNormalise(s);
    AncError(s);
    AncUpdate(s);
}
