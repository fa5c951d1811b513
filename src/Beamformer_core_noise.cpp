// Per-bin noise power by speech-presence probability, decision-directed
// a-priori SNR and Wiener gain per microphone.
//
// Two passes over the bins per microphone with the exponentials between them,
// each one body over the element type (vector_lanes.h).
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "Beamformer_core_modes.h"
#include "vector_kernels.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kLambdaFloor = 1e-6f;
// Presence probability with a fixed a-priori SNR of 15 dB under speech:
// p = 1 / (1 + (1 + xi) exp(-gamma xi / (1 + xi))), xi = 10^1.5.
constexpr float kPresenceOffset = 32.622776f;
constexpr float kPresenceSlope = -0.9693466f;
constexpr float kPresenceSmoothing = 0.1f;  // weight of this block's probability
constexpr float kPresenceCap = 0.9f;        // both threshold and the value it caps to
constexpr float kNoiseSmoothing = 0.2f;     // weight of this block's noise estimate
constexpr float kPriorSmoothing = 0.02f;    // weight of this block's a-posteriori SNR
// Weights of the previous values, formed in float as the mixes always have.
constexpr float kPresenceKeep = 1.0f - kPresenceSmoothing;
constexpr float kNoiseKeep = 1.0f - kNoiseSmoothing;
constexpr float kPriorKeep = 1.0f - kPriorSmoothing;
// Floor of the speech-to-noise ratio by adaptive intensity 0..4.
constexpr float kSpeechRatioFloor[] = {0.01f, 0.01f, 0.005f, 0.005f, 0.001f};

// What one microphone's pass does besides the update every block makes.
struct MicPass {
    int32_t m;
    bool first_block;     // the noise starts at the block's power
    bool start_smoothed;  // the smoothed presence starts at this block's
    bool speech_ratio;    // microphone 0 in the post-filter modes
    bool share_gain;      // calibrated: microphone 1 takes this gain
    float noise_scale;    // intensity_scale
    float prior_floor;    // intensity_floor
    float ratio_floor;    // of the speech-to-noise ratio
};

// First pass: the block's power P, and after the first block
// gamma = P / max(lambda, 1e-6) and the exponent of the presence probability.
template <typename T>
void PowerPass(const BfCoreState &s, const MicPass &pass, BfNoiseScratch &scratch, int32_t k) {
    const T power = Power(LoadComplex<T>(s.mic_spectrum[pass.m], k)) * T(kSpectrumPowerScale);
    Store(scratch.power, k, power);
    if (pass.first_block) return;
    const T gamma = Quotient(power, AtLeast(Load<T>(s.noise_psd[pass.m], k), kLambdaFloor));
    Store(scratch.posterior_snr, k, gamma);
    Store(scratch.presence, k, gamma * T(kPresenceSlope));
}

// Second pass, with the exponential taken: p smoothed and capped; lambda
// moves towards the power the presence expects; then
// xi = max(mix(max(gamma - 1, 0), G^2 gamma of the last block), floor) and
// G = xi / (1 + xi). On the first block the noise starts at the block's
// power and gamma is zero.
template <typename T>
void UpdatePass(BfCoreState &s, const MicPass &pass, const BfNoiseScratch &scratch, int32_t k) {
    const int32_t m = pass.m;
    const T power = Load<T>(scratch.power, k);
    const T gamma = Load<T>(scratch.posterior_snr, k);
    const T unit = Load<T>(kUnitBins.data(), k);
    const T one(1.0f);

    T noise = power;
    if (!pass.first_block) {
        noise = Load<T>(s.noise_psd[m], k);
        T presence = Load<T>(scratch.presence, k) * T(kPresenceOffset) + unit;
        presence = Quotient(unit, presence);
        T smoothed = presence;
        if (!pass.start_smoothed)
            smoothed = presence * T(kPresenceSmoothing) + Load<T>(s.spp_smoothed[m], k) * T(kPresenceKeep);
        Store(s.spp_smoothed[m], k, smoothed);
        // Keeps the noise estimate moving when speech seems present for long.
        const T cap(kPresenceCap);
        presence = Select(Both(Greater(smoothed, cap), Greater(presence, cap)), cap, presence);

        const T scaled_noise = noise * T(pass.noise_scale);
        const T expected = (one - presence) * power + presence * scaled_noise;
        noise = expected * T(kNoiseSmoothing) + noise * T(kNoiseKeep);
    }
    Store(s.noise_psd[m], k, noise);

    T xi = Max(gamma - one, T(0.0f));
    xi = xi * T(kPriorSmoothing) + Load<T>(s.prior_snr_memory[m], k) * T(kPriorKeep);
    xi = AtLeast(xi, pass.prior_floor);
    const T gain = Quotient(xi, xi + unit);
    Store(s.prior_snr_memory[m], k, gain * gain * gamma);
    Store(s.wiener_gain[m], k, gain);
    if (pass.share_gain) Store(s.wiener_gain[1], k, gain);

    if (pass.speech_ratio) {
        // Speech power over noise power where the noise dominates, else 1; a
        // silent bin (both 0) would give 0/0: it has no speech, ratio 0. The
        // quotient is an IEEE division, taken everywhere and kept where it
        // applies.
        const T zero(0.0f);
        const T speech = gain * gain * power;
        const T quotient = Select(Greater(speech, zero), ExactQuotient(speech, noise), zero);
        const T ratio = Select(GreaterEqual(noise, speech), quotient, one);
        Store(s.speech_noise_ratio, k, AtLeast(ratio * gain, pass.ratio_floor));
    }
}

}  // namespace

void Bf_NoiseEstimate(BfCoreState &s) {
    int32_t intensity = s.adaptive_intensity;
    if (intensity < 0) intensity = 0;
    if (intensity > 4) intensity = 4;
    // The equalised microphones share microphone 0's gain.
    const bool calibrated = s.calibration_flag == 1;
    BfNoiseScratch &scratch = s.noise_scratch;
    // The first block has no noise estimate to divide by: gamma is zero.
    if (s.noise_counter == 0) vec_fill(scratch.posterior_snr, 0.0f, kBins);

    for (int32_t m = 0; m < (calibrated ? 1 : kMics); ++m) {
        const MicPass pass{m,
                           s.noise_counter == 0,
                           s.noise_counter == 1,
                           m == 0 && TraitsOf(s).post_filter,
                           calibrated,
                           s.intensity_scale,
                           s.intensity_floor,
                           kSpeechRatioFloor[intensity]};
        ForEachBin(kBins, [&](auto element, int32_t k) { PowerPass<decltype(element)>(s, pass, scratch, k); });
        // Apart so that the passes around it keep their constants in registers.
        if (!pass.first_block) math::ExpFInPlace(scratch.presence, kBins);
        ForEachBin(kBins, [&](auto element, int32_t k) { UpdatePass<decltype(element)>(s, pass, scratch, k); });
    }
    if (s.noise_counter < 2) ++s.noise_counter;
}
