// Per-bin noise power by speech-presence probability, decision-directed
// a-priori SNR and Wiener gain per microphone.
//
// Two passes over the bins per microphone with the exponentials between them:
// bins 0..127 in groups of four lanes, bin 128 on its own. Each bin meets the
// same operations in the same order in both paths except where lanes and
// scalars differ by nature: division is a refined reciprocal estimate in lanes
// and IEEE division on the last bin, as everywhere the library divides over
// bins.
#include <cmath>

#include "math_functions.h"
#include "Beamformer_core.h"
#include "vector_lanes.h"

using namespace kivbf;
using namespace kivbf::lanes;

namespace {

constexpr float kPowerScale = 65536.0f;  // power of the spectrum scaled by 256
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

bool HasPostFilter(const BfCoreState &s) { return s.mode == 3 || s.mode == 4; }

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

// Speech power over noise power where the noise dominates, else 1; a silent
// bin (both 0) would give 0/0: it has no speech, ratio 0.
float SpeechOverNoise(float speech, float noise) {
    if (noise >= speech) return speech > 0.0f ? speech / noise : 0.0f;
    return 1.0f;
}

// First pass, bins k..k+3: the block's power P, and after the first block
// gamma = P / max(lambda, 1e-6) and the exponent of the presence probability.
void PowerLanes(BfCoreState &s, const MicPass &pass, int32_t k) {
    const float32x4x2_t bin = vld2q_f32(s.mic_spectrum[pass.m] + 2 * k);
    float32x4_t power =
        vaddq_f32(vmulq_f32(bin.val[0], bin.val[0]), vmulq_f32(bin.val[1], bin.val[1]));
    power = vmulq_n_f32(power, kPowerScale);
    vst1q_f32(s.ne_power + k, power);
    if (pass.first_block) return;
    const float32x4_t noise = vld1q_f32(s.noise_psd[pass.m] + k);
    const float32x4_t gamma =
        vmulq_f32(power, Reciprocal(vmaxq_f32(noise, vdupq_n_f32(kLambdaFloor))));
    vst1q_f32(s.ne_posterior_snr + k, gamma);
    vst1q_f32(s.ne_presence + k, vmulq_n_f32(gamma, kPresenceSlope));
}

void PowerLast(BfCoreState &s, const MicPass &pass, int32_t k) {
    const float re = s.mic_spectrum[pass.m][2 * k];
    const float im = s.mic_spectrum[pass.m][2 * k + 1];
    float power = re * re + im * im;
    power = power * kPowerScale;
    s.ne_power[k] = power;
    if (pass.first_block) return;
    const float gamma = ScalarQuotient(power, ScalarMax(s.noise_psd[pass.m][k], kLambdaFloor));
    s.ne_posterior_snr[k] = gamma;
    s.ne_presence[k] = gamma * kPresenceSlope;
}

// Second pass, bins k..k+3, with the exponential taken: p smoothed and
// capped; lambda moves towards the power the presence expects; then
// xi = max(mix(max(gamma - 1, 0), G^2 gamma of the last block), floor) and
// G = xi / (1 + xi). On the first block the noise starts at the block's
// power and gamma keeps what its scratch array holds.
void UpdateLanes(BfCoreState &s, const MicPass &pass, int32_t k) {
    const int32_t m = pass.m;
    const float32x4_t power = vld1q_f32(s.ne_power + k);
    const float32x4_t gamma = vld1q_f32(s.ne_posterior_snr + k);
    const float32x4_t unit = vld1q_f32(s.unit_vector + k);
    const float32x4_t one = vdupq_n_f32(1.0f);

    float32x4_t noise = power;
    if (!pass.first_block) {
        noise = vld1q_f32(s.noise_psd[m] + k);
        float32x4_t presence = vld1q_f32(s.ne_presence + k);
        presence = vaddq_f32(vmulq_n_f32(presence, kPresenceOffset), unit);
        presence = vmulq_f32(unit, Reciprocal(presence));
        float32x4_t smoothed = presence;
        if (!pass.start_smoothed)
            smoothed = vaddq_f32(vmulq_n_f32(presence, kPresenceSmoothing),
                                 vmulq_n_f32(vld1q_f32(s.spp_smoothed[m] + k), kPresenceKeep));
        vst1q_f32(s.spp_smoothed[m] + k, smoothed);
        // Keeps the noise estimate moving when speech seems present for long.
        const float32x4_t cap = vdupq_n_f32(kPresenceCap);
        presence = vbslq_f32(vandq_u32(vcgtq_f32(smoothed, cap), vcgtq_f32(presence, cap)), cap,
                             presence);

        const float32x4_t scaled_noise = vmulq_n_f32(noise, pass.noise_scale);
        const float32x4_t expected = vaddq_f32(vmulq_f32(vsubq_f32(one, presence), power),
                                               vmulq_f32(presence, scaled_noise));
        noise = vaddq_f32(vmulq_n_f32(expected, kNoiseSmoothing), vmulq_n_f32(noise, kNoiseKeep));
    }
    vst1q_f32(s.noise_psd[m] + k, noise);

    float *memory = s.prior_snr_memory[m] + k;
    float32x4_t xi = vmaxq_f32(vsubq_f32(gamma, one), vdupq_n_f32(0.0f));
    xi = vaddq_f32(vmulq_n_f32(xi, kPriorSmoothing), vmulq_n_f32(vld1q_f32(memory), kPriorKeep));
    xi = vmaxq_f32(xi, vdupq_n_f32(pass.prior_floor));
    const float32x4_t gain = vmulq_f32(xi, Reciprocal(vaddq_f32(xi, unit)));
    vst1q_f32(memory, vmulq_f32(vmulq_f32(gain, gain), gamma));
    vst1q_f32(s.wiener_gain[m] + k, gain);
    if (pass.share_gain) vst1q_f32(s.wiener_gain[1] + k, gain);

    if (pass.speech_ratio) {
        // SpeechOverNoise in four lanes: the quotient is taken everywhere (an
        // IEEE division, as in the scalar form) and kept where it applies.
        const float32x4_t zero = vdupq_n_f32(0.0f);
        const float32x4_t speech = vmulq_f32(vmulq_f32(gain, gain), power);
        const float32x4_t quotient =
            vbslq_f32(vcgtq_f32(speech, zero), ExactQuotient(speech, noise), zero);
        const float32x4_t ratio = vbslq_f32(vcgeq_f32(noise, speech), quotient, one);
        vst1q_f32(s.speech_noise_ratio + k,
                  vmaxq_f32(vmulq_f32(ratio, gain), vdupq_n_f32(pass.ratio_floor)));
    }
}

void UpdateLast(BfCoreState &s, const MicPass &pass, int32_t k) {
    const int32_t m = pass.m;
    const float power = s.ne_power[k];
    const float gamma = s.ne_posterior_snr[k];
    const float unit = s.unit_vector[k];

    float noise = power;
    if (!pass.first_block) {
        noise = s.noise_psd[m][k];
        float presence = s.ne_presence[k] * kPresenceOffset + unit;
        presence = ScalarQuotient(unit, presence);
        float smoothed = presence;
        if (!pass.start_smoothed)
            smoothed = kPresenceSmoothing * presence + kPresenceKeep * s.spp_smoothed[m][k];
        s.spp_smoothed[m][k] = smoothed;
        if (smoothed > kPresenceCap && presence > kPresenceCap) presence = kPresenceCap;

        const float scaled_noise = noise * pass.noise_scale;
        const float expected = (1.0f - presence) * power + presence * scaled_noise;
        noise = kNoiseSmoothing * expected + kNoiseKeep * noise;
    }
    s.noise_psd[m][k] = noise;

    float &memory = s.prior_snr_memory[m][k];
    float xi = ScalarMax(gamma - 1.0f, 0.0f);
    xi = kPriorSmoothing * xi + kPriorKeep * memory;
    xi = ScalarMax(xi, pass.prior_floor);
    const float gain = ScalarQuotient(xi, xi + unit);
    memory = gain * gain * gamma;
    s.wiener_gain[m][k] = gain;
    if (pass.share_gain) s.wiener_gain[1][k] = gain;

    if (pass.speech_ratio) {
        const float ratio = SpeechOverNoise(gain * gain * power, noise) * gain;
        s.speech_noise_ratio[k] = ScalarMax(ratio, pass.ratio_floor);
    }
}

}  // namespace

void Bf_NoiseEstimate(BfCoreState &s) {
    int32_t intensity = s.adaptive_intensity;
    if (intensity < 0) intensity = 0;
    if (intensity > 4) intensity = 4;
    // The equalised microphones share microphone 0's gain.
    const bool calibrated = s.calibration_flag == 1;

    for (int32_t m = 0; m < (calibrated ? 1 : kMics); ++m) {
        const MicPass pass{m,
                           s.noise_counter == 0,
                           s.noise_counter == 1,
                           m == 0 && HasPostFilter(s),
                           calibrated,
                           s.intensity_scale,
                           s.intensity_floor,
                           kSpeechRatioFloor[intensity]};
        ForEachLaneGroup(
            kBins, [&](int32_t k) { PowerLanes(s, pass, k); },
            [&](int32_t k) { PowerLast(s, pass, k); });
        // Apart so that the passes around it keep their constants in registers.
        if (!pass.first_block)
            for (int32_t k = 0; k < kBins; ++k) s.ne_presence[k] = math::ExpF(s.ne_presence[k]);
        ForEachLaneGroup(
            kBins, [&](int32_t k) { UpdateLanes(s, pass, k); },
            [&](int32_t k) { UpdateLast(s, pass, k); });
    }
    if (s.noise_counter < 2) ++s.noise_counter;
}
