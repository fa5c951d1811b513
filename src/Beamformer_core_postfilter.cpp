// Post-filter of modes 3 and 4.
//
// The raw per-bin gain is smoothed across frequency with a 22-tap window so
// that isolated bins cannot punch narrow holes into the spectrum (the cause
// of musical noise); near both ends the window reaches past the spectrum and
// the sum of the taps that remain inside renormalises it. The smoothed gain
// is then either applied to the beam with a small dry share or only mixed
// into the gain state.
#include <cstring>

#include "Beamformer_core.h"
#include "vector_kernels.h"

using namespace kivbf;

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
constexpr int32_t kCentreOffset = 11;           // conv_out[k + 11] is centred on bin k
constexpr float kGainFloor = 1e-6f;

}  // namespace

void Bf_PostFilterGain(BfCoreState &s) {
    // Mode 4 keeps the raw gain of the last mode-3 block.
    if (s.mode == 3) {
        if (s.pf_flow == 1) {
            vec_mul(s.direction_weight, s.speech_noise_ratio, s.pf_raw_gain, kBins);
        } else {
            std::memcpy(s.pf_raw_gain, s.direction_weight, sizeof(s.pf_raw_gain));
        }
    }
    vec_floor(s.pf_raw_gain, kGainFloor, s.pf_raw_gain, kBins);

    vec_fill(s.pf_pad_buffer, 0.0f, kPadLength);
    std::memcpy(s.pf_pad_buffer + kPadZeros, s.pf_raw_gain, sizeof(s.pf_raw_gain));
    vec_convolve(s.pf_pad_buffer, smooth_window, s.pf_conv_out, kBins, kSmoothTaps);
    std::memcpy(s.pf_gain, s.pf_conv_out + kCentreOffset, sizeof(s.pf_gain));

    for (int32_t i = 0; i < kEdgeBins; ++i) {
        s.pf_gain[i] /= nor_smooth_window[i];
        s.pf_gain[kBins - 1 - i] /= nor_smooth_window[i];
    }
}

void Bf_PostFilterApply(BfCoreState &s) {
    // E = pf_mix x E + (1 - pf_mix) x gain x E
    cplx_scale_by_real(s.beam_output, s.pf_gain, s.scratch_complex, kSpectrumFloats);
    cplx_mix(s.beam_output, s.scratch_complex, s.pf_mix, s.beam_output, kSpectrumFloats);
    vec_fill(s.pf_gain, 1.0f, kBins);
}

void Bf_PostFilterMix(BfCoreState &s) {
    vec_mix(s.speech_presence, s.pf_gain, s.pf_mix, s.pf_gain, kBins);
}
